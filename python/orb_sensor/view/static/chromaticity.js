// The CIE 1931 chromaticity diagram: the spectrum locus and the Planckian
// locus as the server computed them from the CIE tables, and the point of
// the spectrum on the page.

const X_RANGE = [0, 0.8];
const Y_RANGE = [0, 0.9];
const LABELLED_NM = [460, 480, 500, 520, 540, 560, 580, 600, 620, 700];

export async function makeChromaticity(canvas) {
  let diagram = null;
  try {
    const response = await fetch("/api/chromaticity");
    if (response.ok) diagram = await response.json();
  } catch (error) {
    diagram = null;
  }
  const ctx = canvas.getContext("2d");
  const margin = 22;
  const px = (x) => margin + (x - X_RANGE[0]) / (X_RANGE[1] - X_RANGE[0]) * (canvas.width - margin - 6);
  const py = (y) => canvas.height - margin - (y - Y_RANGE[0]) / (Y_RANGE[1] - Y_RANGE[0]) * (canvas.height - margin - 6);

  function line(points, close) {
    ctx.beginPath();
    points.forEach(([, x, y], i) => (i ? ctx.lineTo(px(x), py(y)) : ctx.moveTo(px(x), py(y))));
    if (close) ctx.closePath();
    ctx.stroke();
  }

  return {
    ready: diagram !== null,
    draw(x, y) {
      ctx.clearRect(0, 0, canvas.width, canvas.height);
      ctx.font = "10px system-ui, sans-serif";
      ctx.strokeStyle = "#999";
      ctx.fillStyle = "#555";
      ctx.beginPath();
      ctx.moveTo(px(0), py(Y_RANGE[1]));
      ctx.lineTo(px(0), py(0));
      ctx.lineTo(px(X_RANGE[1]), py(0));
      ctx.stroke();
      ctx.fillText("x", px(X_RANGE[1]) - 8, py(0) + 14);
      ctx.fillText("y", px(0) - 14, py(Y_RANGE[1]) + 8);
      if (diagram === null) {
        ctx.fillText("no CIE tables (colord-data)", px(0.05), py(0.45));
        return;
      }
      ctx.strokeStyle = "#333";
      line(diagram.locus, true);
      for (const [nm, lx, ly] of diagram.locus) {
        if (LABELLED_NM.includes(nm)) ctx.fillText(String(nm), px(lx) + (lx < 0.2 ? -22 : 4), py(ly));
      }
      ctx.strokeStyle = "#c77700";
      line(diagram.planckian, false);
      if (x !== null && y !== null && x !== undefined && y !== undefined) {
        ctx.fillStyle = "#c62828";
        ctx.beginPath();
        ctx.arc(px(x), py(y), 4, 0, 2 * Math.PI);
        ctx.fill();
      }
    },
  };
}
