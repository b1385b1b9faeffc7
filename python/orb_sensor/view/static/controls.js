// The controls: each change goes to the server, which checks it before
// the sensor gets it; a refusal is shown in #message. The status the
// server sends back, and pushes, sets what the controls show.

const $ = (id) => document.getElementById(id);
let status = null;
// The axis: nm once a calibration is known, unless the user chose (or
// the address did: ?axis=filter or ?axis=nm).
const askedAxis = new URLSearchParams(location.search).get("axis");
let axisChosen = askedAxis === "filter" || askedAxis === "nm";
if (axisChosen) document.getElementById("axis").value = askedAxis;
let axisChanged = () => {};

function showMessage(text) {
  $("message").textContent = text;
  $("message").hidden = !text;
}

async function post(path, body) {
  let response;
  try {
    response = await fetch(path, {
      method: "POST",
      headers: {"Content-Type": "application/json"},
      body: JSON.stringify(body),
    });
  } catch (error) {
    showMessage(`the view does not answer: ${error.message}`);
    return;
  }
  const answer = await response.json().catch(async () => ({error: await response.text()}));
  if (!response.ok) {
    showMessage(answer.error);
    return;
  }
  showMessage("");
  showStatus(answer);
}

function value(input) {
  if (input.type === "checkbox") return input.checked;
  // An entry that is no number goes as null, for the server to refuse.
  const number = input.type === "number" ? input.valueAsNumber : Number(input.value);
  return Number.isNaN(number) ? null : number;
}

// Buttons that wait for a long answer stay pressed until it comes.
function action(button, path, body) {
  button.addEventListener("click", async () => {
    button.disabled = true;
    try {
      await post(path, body());
    } finally {
      button.disabled = false;
    }
  });
}

function lightChannels(labels) {
  const box = $("led-channels");
  if (box.childElementCount) return;
  labels.forEach((label, channel) => {
    const item = document.createElement("label");
    item.innerHTML = `<input type="checkbox" data-channel="${channel}"> ${channel} <small></small>`;
    item.querySelector("small").textContent = label;
    box.append(item);
  });
}

function sendLights() {
  const channels = [...document.querySelectorAll("[data-channel]")]
    .filter((box) => box.checked).map((box) => Number(box.dataset.channel));
  post("/api/led", {channels, intensity: value($("led-intensity"))});
}

export function bindControls() {
  for (const input of document.querySelectorAll("[data-setting]")) {
    input.addEventListener("change", () => post("/api/settings", {[input.dataset.setting]: value(input)}));
  }
  action($("auto-exposure"), "/api/auto-exposure", () => ({target: $("target").value === "" ? null : value($("target"))}));
  action($("take-dark"), "/api/dark", () => ({}));
  action($("freeze"), "/api/settings", () => ({frozen: !status.frozen}));
  action($("record"), "/api/recording", () => ({on: !status.recording.on}));
  $("sensor").addEventListener("change", () => post("/api/sensor", {id: $("sensor").value}));
  $("led").addEventListener("change", sendLights);
  $("axis").addEventListener("change", () => {
    axisChosen = true;
    axisChanged($("axis").value === "nm");
  });
  $("spectrum-mode").addEventListener("change", () => post("/api/spectrum", {mode: $("spectrum-mode").value}));
  action($("take-reference"), "/api/reference", () => ({take: true}));
  action($("clear-reference"), "/api/reference", () => ({clear: true}));
  action($("clear-overlay"), "/api/overlay", () => ({clear: true}));
  $("overlay-file").addEventListener("change", async () => {
    const file = $("overlay-file").files[0];
    if (file) await post("/api/overlay", {name: file.name, csv: await file.text()});
    $("overlay-file").value = "";
  });
}

// callback(nm) now and whenever the axis changes.
export function onAxis(callback) {
  axisChanged = callback;
  callback($("axis").value === "nm");
}

function showSpectrumStatus(next) {
  const calibration = next.calibration;
  $("calibration").textContent = calibration
    ? `calibration of ${calibration.sensor_id}, made ${calibration.created}`
    : "no calibration of this sensor: make one with `orb-sensor calibrate` (docs/spectra.md)";
  $("calibration").title = next.calibration_problem || "";
  if (calibration && !axisChosen && $("axis").value !== "nm") {
    $("axis").value = "nm";
    axisChanged(true);
  }
  show("spectrum-mode", next.spectrum_mode);
  const reference = next.reference;
  $("reference").textContent = reference
    ? `reference at shutter speed ${reference.shutter_speed} (${reference.exposure_ms.toFixed(2)} ms)` : "";
  $("overlay").textContent = next.overlay ? `overlay: ${next.overlay}` : "";
}

// What the user is typing into is left alone.
function show(id, text) {
  const element = $(id);
  if (element === document.activeElement || text === null || text === undefined) return;
  if (element.type === "checkbox") element.checked = text;
  else element.value = text;
}

export function showStatus(next) {
  status = next;
  const state = $("state");
  state.className = `state ${next.state.replace(/ /g, "-")}`;
  state.textContent = next.state;
  $("state-message").textContent = next.message;
  $("state-message").hidden = !next.message;
  $("plots").classList.toggle("stale", ["lost", "not answering", "endpoint stalled", "failed"].includes(next.state));
  $("sensor-id").textContent = next.sensor_id;
  $("frame-rate").textContent = next.frame_rate.toFixed(1);
  $("lost-count").textContent = next.lost;
  $("missed-count").textContent = next.missed;

  const select = $("sensor");
  select.hidden = next.sensors.length < 2;
  $("sensor-id").hidden = !select.hidden;
  if (select.options.length !== next.sensors.length) {
    select.replaceChildren(...next.sensors.map((id) => new Option(id, id)));
  }
  show("sensor", next.sensor_id);

  show("shutter_speed", next.shutter_speed);
  show("exposure_ms", next.exposure_ms === null ? null : next.exposure_ms.toFixed(4));
  show("averages", next.averages);
  show("adc_gain", next.adc.gain);
  show("adc_range", next.adc.range);
  show("dark_correction", next.dark_correction);
  // On without a dark of this exposure (the exposure changed), the stream
  // refuses its frames: switching it off must stay possible.
  $("dark_correction").disabled = !next.dark && !next.dark_correction;
  $("freeze").textContent = next.frozen ? "Resume" : "Freeze";

  showSpectrumStatus(next);

  const recording = next.recording;
  $("record").textContent = recording.on ? "Stop" : "Start";
  $("recording").textContent = recording.failure
    ?? (recording.name ? `${recording.name}: ${recording.frames} frames${recording.on ? "" : " (stopped)"}` : "");

  $("led").hidden = next.led === null;
  if (next.led !== null) {
    lightChannels(next.led.labels);
    for (const box of document.querySelectorAll("[data-channel]")) {
      if (!box.matches(":focus")) box.checked = next.led.channels.includes(Number(box.dataset.channel));
    }
    show("led-intensity", next.led.intensity);
  }
}
