// The live view: frames from the WebSocket drawn at most once per display
// refresh, the newest one each time; the counters beside the plot.

import {bindControls, showStatus} from "./controls.js";
import {connect} from "./socket.js";
import {makePlot} from "./plot.js";

const $ = (id) => document.getElementById(id);
const plot = makePlot($("plot"));

// The page's own counts, for scripts that drive it (bench/bench_view.py, the
// tests): frames received and painted, the delay of each painted one from
// its timestamp to its paint in ms (the last DELAYS_KEPT), and the DN axis.
const DELAYS_KEPT = 10000;
window.orbView = {received: 0, painted: 0, delays: [], range: () => plot.range()};

let newest = null;
let scheduled = false;
let second = {start: performance.now(), painted: 0, delay: 0};

// Painted frames per second and their mean delay, over the last second.
setInterval(() => {
  const now = performance.now();
  $("paint-rate").textContent = (second.painted * 1000 / (now - second.start)).toFixed(1);
  $("delay").textContent = second.painted ? Math.round(second.delay / second.painted) : "–";
  second = {start: now, painted: 0, delay: 0};
}, 1000);

function paint() {
  scheduled = false;
  const {meta, values} = newest;
  const peak = plot.draw(values, meta.saturated);
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

const socket = connect({
  onFrame(meta, values) {
    window.orbView.received += 1;
    newest = {meta, values};
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
