// The filter data over filter numbers 1..1024, drawn with uPlot: the
// saturation level across it, and the saturated filters marked on the line.
// The DN axis runs from 0 to the saturation level, or over the data alone,
// so that a dim spectrum, or one high above the dark level, shows its shape.

const FILTERS = 1024;
const SATURATION = 4095;

// The data's extent with a twentieth of it on either side, on whole DN.
function dataRange(low, high) {
  const pad = Math.max((high - low) * 0.05, 1);
  return [Math.floor(low - pad), Math.ceil(high + pad)];
}

export function makePlot(element) {
  let toSaturation = false;
  // The data's own extent: the saturation series would always stretch uPlot's.
  let low = 0;
  let high = 1;
  const toData = () => dataRange(low, high);
  const filters = Array.from({length: FILTERS}, (_, i) => i + 1);
  const level = new Array(FILTERS).fill(SATURATION);
  const options = {
    width: element.clientWidth,
    height: element.clientHeight,
    // No zoom: every frame resets the scales, which would undo it.
    cursor: {drag: {x: false, y: false}},
    scales: {
      x: {time: false},
      y: {
        range: () => (toSaturation ? [Math.min(0, low), Math.max(SATURATION * 1.05, high)] : toData()),
      },
    },
    axes: [{label: "filter"}, {label: "DN"}],
    series: [
      {label: "filter"},
      {label: "DN", stroke: "#1f5fbf", width: 1, points: {show: false}},
      {label: "saturation (4095)", stroke: "#c62828", dash: [6, 4], width: 1, points: {show: false}},
      {label: "saturated", stroke: "#c62828", fill: "#c62828", paths: () => null, points: {show: true, size: 7}},
    ],
  };
  const empty = new Array(FILTERS).fill(null);
  const plot = new uPlot(options, [filters, empty, level, empty], element);
  // The legend goes below the plot, inside the element.
  const legend = plot.root.querySelector(".u-legend");
  new ResizeObserver(() => plot.setSize({width: element.clientWidth,
                                         height: element.clientHeight - legend.offsetHeight}))
    .observe(element);

  return {
    scaleToSaturation(on) {
      toSaturation = on;
      plot.setData(plot.data);
    },
    // The DN axis as drawn: [bottom, top].
    range() {
      return [plot.scales.y.min, plot.scales.y.max];
    },
    // Draws a frame; returns its peak.
    draw(values, saturated) {
      low = Infinity;
      high = -Infinity;
      for (const v of values) {
        low = v < low ? v : low;
        high = v > high ? v : high;
      }
      const marks = new Array(FILTERS).fill(null);
      for (const filter of saturated) marks[filter - 1] = values[filter - 1];
      plot.setData([filters, values, level, marks]);
      return high;
    },
  };
}
