// The view's WebSocket. The server sends the status as JSON text and each
// frame as binary: a 4-byte little-endian length, that much JSON metadata,
// then little-endian float32 arrays: the 1024 values of filter data, or a
// spectrum's n wavelengths, n values and, with an overlay, its n values.
// The page answers "painted" after drawing a frame; only then does the
// server send the next (the newest). "axis nm" or "axis filter" chooses
// which the page gets.

const decoder = new TextDecoder();

function arrays(meta, buffer, offset) {
  if (meta.kind !== "spectrum") return {values: new Float32Array(buffer, offset)};
  const n = meta.n;
  const at = (i) => new Float32Array(buffer, offset + 4 * n * i, n);
  return {wavelengths: at(0), values: at(1), overlay: meta.overlay === null ? null : at(2)};
}

export function connect({onFrame, onStatus, onClose, onOpen}) {
  const scheme = location.protocol === "https:" ? "wss" : "ws";
  const socket = new WebSocket(`${scheme}://${location.host}/ws`);
  socket.binaryType = "arraybuffer";
  socket.onopen = onOpen;
  socket.onmessage = (event) => {
    if (typeof event.data === "string") {
      onStatus(JSON.parse(event.data));
      return;
    }
    const length = new DataView(event.data).getUint32(0, true);
    const meta = JSON.parse(decoder.decode(new Uint8Array(event.data, 4, length)));
    onFrame(meta, arrays(meta, event.data, 4 + length));
  };
  socket.onclose = onClose;
  const send = (text) => {
    if (socket.readyState === WebSocket.OPEN) socket.send(text);
  };
  return {
    painted() {
      send("painted");
    },
    axis(nm) {
      send(nm ? "axis nm" : "axis filter");
    },
  };
}
