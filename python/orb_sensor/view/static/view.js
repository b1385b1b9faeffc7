// The live view: frames from the WebSocket drawn at most once per display
// refresh, the newest one each time; the counters beside the plot. On the
// filter axis the page draws filter data; on the nm axis the spectrum of
// each frame, its peaks and colour.

import {bindControls, showStatus, onAxis} from "./controls.js";
import {connect} from "./socket.js";
import {makePlot} from "./plot.js";
import {makeSpectrumPlot} from "./spectrum_plot.js";
import {makeChromaticity} from "./chromaticity.js";

const $ = (id) => document.getElementById(id);
const plot = makePlot($("plot"));
let spectrumPlot = null;
let spectrumLabel = null;
const chromaticity = makeChromaticity($("chromaticity"));

// The page's own counts, for scripts that drive it (bench/bench_view.py, the
// tests): frames received and painted, the delay of each painted one from
// its timestamp to its paint in ms (the last DELAYS_KEPT), the DN axis,
// and what the nm axis shows.
const DELAYS_KEPT = 10000;
window.orbView = {received: 0, painted: 0, delays: [], range: () => plot.range(), spectrum: null};

let newest = null;
let scheduled = false;
let second = {start: performance.now(), painted: 0, delay: 0};

setInterval(() => {
  const now = performance.now();
  $("paint-rate").textContent = (second.painted * 1000 / (now - second.start)).toFixed(1);
  $("delay").textContent = second.painted ? Math.round(second.delay / second.painted) : "–";
  second = {start: now, painted: 0, delay: 0};
}, 1000);

const fixed = (v, digits) => (v === null || v === undefined ? "–" : v.toFixed(digits));

function showColour(colour) {
  $("cct").textContent = colour ? fixed(colour.cct_k, 0) : "–";
  $("duv").textContent = colour ? fixed(colour.duv, 4) : "–";
  $("chroma-x").textContent = colour ? fixed(colour.x, 4) : "–";
  $("chroma-y").textContent = colour ? fixed(colour.y, 4) : "–";
  $("ra").textContent = colour ? fixed(colour.ra, 1) + (colour.ra_meaningful ? "" : " (Duv too large)") : "–";
  chromaticity.then((diagram) => diagram.draw(colour ? colour.x : null, colour ? colour.y : null));
}

function axisLabel(meta) {
  return meta.unit ? `${meta.label}, ${meta.unit}` : meta.label;
}

function paintSpectrum(meta, data) {
  $("spectrum-problem").textContent = meta.problem || "";
  $("spectrum-problem").hidden = !meta.problem;
  showColour(meta.colour);
  if (meta.n === 0) return null;
  const label = axisLabel(meta);
  if (spectrumPlot === null || label !== spectrumLabel) {
    if (spectrumPlot !== null) spectrumPlot.destroy();
    spectrumLabel = label;
    spectrumPlot = makeSpectrumPlot($("spectrum-plot"), label, (nm, value) => {
      $("cursor-nm").textContent = `cursor: ${nm.toFixed(1)} nm` + (value === null ? "" : `, ${value.toPrecision(4)}`);
    });
  }
  $("peak-list").textContent = meta.peaks.length
    ? "peaks, nm: " + meta.peaks.map(([nm]) => nm.toFixed(1)).join(", ") : "";
  window.orbView.spectrum = {mode: meta.mode, labels: spectrumPlot.labels, peaks: meta.peaks, colour: meta.colour,
                             first_nm: data.wavelengths[0], last_nm: data.wavelengths[meta.n - 1],
                             range: () => spectrumPlot.range()};
  return spectrumPlot.draw(data.wavelengths, data.values, data.overlay, meta.peaks, meta.overlay);
}

function paint() {
  scheduled = false;
  const {meta, data} = newest;
  let peak;
  if (meta.kind === "spectrum") {
    paintSpectrum(meta, data);
    peak = meta.peak_dn;
  } else {
    peak = plot.draw(data.values, meta.saturated);
  }
  const delay = Date.now() - meta.timestamp * 1000;
  const counts = window.orbView;
  counts.painted += 1;
  counts.delays.push(delay);
  if (counts.delays.length > DELAYS_KEPT) counts.delays.splice(0, counts.delays.length - DELAYS_KEPT);

  $("frame-number").textContent = meta.seq;
  $("peak").textContent = Math.round(peak);
  $("saturated-count").textContent = meta.saturated.length;

  second.painted += 1;
  second.delay += delay;
  socket.painted();
}

function showAxis(nm) {
  $("plot").hidden = nm;
  $("spectrum-plot").hidden = !nm;
  $("colour").hidden = !nm;
  if (!nm) $("spectrum-problem").hidden = true;
  socket.axis(nm);
}

const socket = connect({
  onOpen() {
    onAxis(showAxis);
  },
  onFrame(meta, data) {
    window.orbView.received += 1;
    newest = {meta, data};
    if (!scheduled) {
      scheduled = true;
      requestAnimationFrame(paint);
    }
  },
  onStatus: showStatus,
  onClose() {
    $("state").className = "state ended";
    $("state").textContent = "the view has ended: start orb-sensor view again and reload";
  },
});
bindControls();
$("scale").addEventListener("change", () => plot.scaleToSaturation($("scale").value === "saturation"));
