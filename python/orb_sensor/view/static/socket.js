// The view's WebSocket. The server sends the status as JSON text and each
// frame as binary: a 4-byte little-endian length, that much JSON metadata,
// then 1024 little-endian float32 values. The page answers "painted" after
// drawing a frame; only then does the server send the next (the newest).

const decoder = new TextDecoder();

export function connect({onFrame, onStatus, onClose}) {
  const scheme = location.protocol === "https:" ? "wss" : "ws";
  const socket = new WebSocket(`${scheme}://${location.host}/ws`);
  socket.binaryType = "arraybuffer";
  socket.onmessage = (event) => {
    if (typeof event.data === "string") {
      onStatus(JSON.parse(event.data));
      return;
    }
    const length = new DataView(event.data).getUint32(0, true);
    const meta = JSON.parse(decoder.decode(new Uint8Array(event.data, 4, length)));
    onFrame(meta, new Float32Array(event.data, 4 + length));
  };
  socket.onclose = onClose;
  return {
    painted() {
      if (socket.readyState === WebSocket.OPEN) socket.send("painted");
    },
  };
}
