// A spectrum over wavelength in nm, drawn with uPlot: the curve, an overlay
// of a saved spectrum, and the peaks marked with their wavelengths. The
// axes are made for one kind of curve (its label and unit): a page that
// changes mode makes the plot again.

const PEAK_FONT_PX = 11;

// Tick labels with as many decimals as the step between ticks needs: a
// spectrum in power per nm may be thousandths throughout.
function ticks(u, splits, axis, space, step) {
  const decimals = Math.min(Math.max(0, -Math.floor(Math.log10(step))), 12);
  return splits.map((v) => v.toFixed(decimals));
}

const legendValue = (u, v) => (v === null || v === undefined ? "–" : v.toPrecision(4));

function dataRange(low, high) {
  if (!Number.isFinite(low) || !Number.isFinite(high)) return [0, 1];
  const pad = Math.max((high - low) * 0.08, Math.abs(high) * 1e-3, 1e-12);
  return [low - pad, high + pad];
}

export function makeSpectrumPlot(element, yLabel, onCursor) {
  let peaks = [];
  let low = 0;
  let high = 1;
  // The peaks' wavelengths above their marks, in the plot's own canvas.
  function drawPeaks(u) {
    const ctx = u.ctx;
    const ratio = uPlot.pxRatio;
    ctx.save();
    ctx.fillStyle = "#b71c1c";
    ctx.font = `${Math.round(PEAK_FONT_PX * ratio)}px system-ui, sans-serif`;
    ctx.textAlign = "center";
    for (const [nm, height] of peaks) {
      const x = u.valToPos(nm, "x", true);
      const y = u.valToPos(height, "y", true);
      ctx.beginPath();
      ctx.arc(x, y, 3 * ratio, 0, 2 * Math.PI);
      ctx.fill();
      ctx.fillText(nm.toFixed(1), x, y - 6 * ratio);
    }
    ctx.restore();
  }
  const options = {
    width: element.clientWidth,
    height: element.clientHeight,
    cursor: {drag: {x: false, y: false}},
    scales: {x: {time: false}, y: {range: () => dataRange(low, high)}},
    axes: [{label: "wavelength, nm"}, {label: yLabel, size: 70, values: ticks}],
    series: [
      {label: "nm", value: (u, v) => (v === null ? "–" : `${v.toFixed(1)} nm`)},
      {label: "live", stroke: "#1f5fbf", width: 1, points: {show: false}, value: legendValue},
      {label: "overlay", stroke: "#6d6d6d", dash: [5, 3], width: 1, points: {show: false}, value: legendValue},
    ],
    hooks: {
      draw: [drawPeaks],
      setCursor: [(u) => {
        const left = u.cursor.left;
        if (left === undefined || left < 0) return;
        const i = u.cursor.idx;
        onCursor(u.posToVal(left, "x"), i === null || i === undefined ? null : u.data[1][i]);
      }],
    },
  };
  const plot = new uPlot(options, [[], [], []], element);
  const legend = plot.root.querySelector(".u-legend");
  const observer = new ResizeObserver(() => plot.setSize({width: element.clientWidth,
                                                          height: element.clientHeight - legend.offsetHeight}));
  observer.observe(element);

  return {
    // The axes' labels as drawn on the canvas: [x, y].
    labels: plot.axes.map((axis) => axis.label),
    range() {
      return [plot.scales.y.min, plot.scales.y.max];
    },
    destroy() {
      observer.disconnect();
      plot.destroy();
    },
    // Draws a spectrum (NaN values are gaps); returns its highest value.
    draw(wavelengths, values, overlay, peakList, overlayName) {
      peaks = peakList;
      low = Infinity;
      high = -Infinity;
      const curve = Array.from(values, (v) => (Number.isFinite(v) ? v : null));
      const other = overlay ? Array.from(overlay, (v) => (Number.isFinite(v) ? v : null)) : curve.map(() => null);
      for (const series of [curve, other]) {
        for (const v of series) {
          if (v === null) continue;
          low = v < low ? v : low;
          high = v > high ? v : high;
        }
      }
      plot.series[2].label = overlayName || "overlay";
      plot.setData([Array.from(wavelengths), curve, other]);
      return high;
    },
  };
}
