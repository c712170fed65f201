// SPDX-License-Identifier: Apache-2.0
// The page's pictures and tables, drawn once when the page is opened.
"use strict";

const WIDTH = 1180;

function escaped(text) {
  return String(text).replace(/[&<>"]/g, (c) => ({ "&": "&amp;", "<": "&lt;", ">": "&gt;", '"': "&quot;" })[c]);
}

function put(id, html) {
  document.getElementById(id).innerHTML = html;
}

// A round step that divides `span` into about `count` parts.
function stepOf(span, count) {
  const rough = span / count;
  const power = 10 ** Math.floor(Math.log10(rough));
  return [1, 2, 5, 10].map((n) => n * power).find((step) => step >= rough);
}

function ticksOf(from, to, count) {
  const step = stepOf(to - from, count);
  const ticks = [];
  for (let n = Math.ceil(from / step - 1e-9); n * step <= to + 1e-9; n++) {
    ticks.push(Number((n * step).toPrecision(12)));
  }
  return ticks;
}

// A plotting area in an SVG; x and y map values to it.
class Plot {
  constructor(left, top, width, height, [x0, x1], [y0, y1]) {
    Object.assign(this, { left, top, width, height, x0, x1, y0, y1 });
  }
  x(value) { return this.left + (value - this.x0) / (this.x1 - this.x0) * this.width; }
  y(value) { return this.top + this.height - (value - this.y0) / (this.y1 - this.y0) * this.height; }

  xAxis(unit) {
    const bottom = this.top + this.height;
    return ticksOf(this.x0, this.x1, 10).map((tick) =>
      `<text class="tick" x="${this.x(tick)}" y="${bottom + 15}" text-anchor="middle">${tick}${unit}</text>`).join("");
  }
  yAxis(label, count = 4) {
    const lines = ticksOf(this.y0, this.y1, count).map((tick) =>
      `<line class="grid" x1="${this.left}" x2="${this.left + this.width}" y1="${this.y(tick)}" y2="${this.y(tick)}"/>
       <text class="tick" x="${this.left - 6}" y="${this.y(tick) + 4}" text-anchor="end">${tick}</text>`).join("");
    return `${lines}<text x="${this.left}" y="${this.top - 6}">${label}</text>`;
  }
  path(points, color, width = 1.5) {
    const d = points.map(([x, y], i) => `${i ? "L" : "M"}${this.x(x).toFixed(1)} ${this.y(y).toFixed(1)}`).join("");
    return `<path d="${d}" fill="none" stroke="${color}" stroke-width="${width}"/>`;
  }
  dots(points, color) {
    const d = points.map(([x, y]) => `M${this.x(x).toFixed(1)} ${this.y(y).toFixed(1)}h.01`).join("");
    return `<path d="${d}" fill="none" stroke="${color}" stroke-width="2.2" stroke-linecap="round"/>`;
  }
}

function svg(height, content, width = WIDTH) {
  return `<svg viewBox="0 0 ${width} ${height}" role="img">${content}</svg>`;
}

function tableOf(heads, rows, kind = "") {
  const cell = (tag, value, i) => `<${tag}${heads[i][0] === "#" ? ' class="number"' : ""}>${value}</${tag}>`;
  const head = heads.map((name, i) => cell("th", escaped(name.replace("#", "")), i)).join("");
  const body = rows.map(({ cells, className = "" }) =>
    `<tr class="${className}">${cells.map((value, i) => cell("td", value, i)).join("")}</tr>`).join("");
  return `<table class="${kind}"><thead><tr>${head}</tr></thead><tbody>${body}</tbody></table>`;
}

// ---- The time line -------------------------------------------------------------------------------

const LANES = ["user", "host", "wire", "driver", "daemon", "app"];  // the wire is there, or the stand-in's driver
const STREAMS = [["0", "USB"], ["1", "speaker"], ["2", "microphone"]];

// The times from a message of this type with 1 to the next one with 0.
function spansOf(messages, type, end) {
  const spans = [];
  let since = null;
  for (const message of messages.filter((m) => m.from === "daemon" && m.type === type)) {
    const on = Number(message.data) === 1;
    if (on && since === null) {
      since = Number(message.t_s);
    } else if (!on && since !== null) {
      spans.push([since, Number(message.t_s)]);
      since = null;
    }
  }
  return since === null ? spans : [...spans, [since, end]];
}

// What somebody did; a label holds everything that happened at about the same time.
function labelsOf(entries) {
  const labels = [];
  for (const { at, who, what } of entries) {
    const told = who === "app" && what.startsWith("is told");
    if (!["user", "host", "app"].includes(who) || told || what.startsWith("flush")) {
      continue;
    }
    const last = labels[labels.length - 1];
    const text = what.replace(/^ppb (-?\d+)$/, (_, ppb) => `clock ${ppb > 0 ? "+" : ""}${ppb / 1000} ppm`);
    if (last && at - last.at < 0.05 && last.text.length < 60) {
      last.text += ", " + text;
    } else {
      labels.push({ at, who, text });
    }
  }
  return labels;
}

function drawTimeline(entries, messages) {
  const end = Math.ceil(Math.max(1, ...entries.map((entry) => entry.at)));
  const left = 86;
  const plot = new Plot(left, 0, WIDTH - left - 20, 0, [0, end], [0, 1]);
  const lanes = LANES.filter((who) => entries.some((entry) => entry.who === who));
  const rows = [];
  const labels = labelsOf(entries).map((label) => {
    const x = plot.x(label.at);
    const width = 6.1 * label.text.length + 12;
    const flipped = x + width > WIDTH;
    const [from, to] = flipped ? [x - width, x] : [x, x + width];
    let row = rows.findIndex((taken) => taken.every(([a, b]) => to < a || from > b));
    row = row < 0 ? rows.push([]) - 1 : row;
    rows[row].push([from, to]);
    return { ...label, x, row, flipped };
  });
  const top = rows.length * 17 + 8;
  const lane = (i) => top + i * 20 + 10;
  const bottom = lane(STREAMS.length + lanes.length - 1) + 14;
  let out = "";
  for (const { who, text, x, row, flipped } of labels) {
    const y = row * 17 + 12;
    out += `<line class="grid" x1="${x}" x2="${x}" y1="${y}" y2="${bottom}"/>
      <text x="${flipped ? x - 4 : x + 4}" y="${y}" text-anchor="${flipped ? "end" : "start"}"
        style="fill: var(--${who})">${escaped(text)}</text>`;
  }
  STREAMS.forEach(([type, name], i) => {
    out += `<text x="${left - 10}" y="${lane(i) + 4}" text-anchor="end">${name}</text>`;
    for (const [from, to] of spansOf(messages, type, end)) {
      out += `<rect class="span" x="${plot.x(from)}" y="${lane(i) - 6}" width="${plot.x(to) - plot.x(from)}"
        height="12" rx="3" fill="var(--daemon)" opacity="0.35"><title>${name}: ${from} to ${to} s</title></rect>`;
    }
  });
  lanes.forEach((who, i) => {
    const y = lane(STREAMS.length + i);
    out += `<text x="${left - 10}" y="${y + 4}" text-anchor="end">${who}</text>
      <line class="grid" x1="${left}" x2="${WIDTH - 20}" y1="${y}" y2="${y}"/>`;
    for (const { at, what } of entries.filter((entry) => entry.who === who)) {
      out += `<circle class="event" cx="${plot.x(at)}" cy="${y}" r="3.5" fill="var(--${who})" opacity="0.6">
        <title>${at.toFixed(3)} s  ${who}  ${escaped(what)}</title></circle>`;
    }
  });
  plot.top = bottom;
  put("timeline", svg(bottom + 22, out + plot.xAxis(" s")));
  put("timeline-lines", `<div class="scroll">${tableOf(["#s", "who", "what"], entries.map(({ at, who, what }) =>
    ({ cells: [at.toFixed(3), `<span class="${who}">${who}</span>`, escaped(what)] })), "mono")}</div>`);
}

// ---- The sound -----------------------------------------------------------------------------------

const DIRECTIONS = [
  { title: "Host to app",
    from: "host", to: "app", played: "host_played.wav", heard: "app_heard.wav" },
  { title: "App to host",
    from: "app", to: "host", played: "app_played.wav", heard: "host_heard.wav" },
];
const SOUND_WIDTH = 570;
const LOUDEST_DB = -20;
const SOFTEST_DB = -95;
const HZ = 10000;

// A colour for 0 to 1, dark to bright.
function heat(v) {
  const stops = [[8, 8, 28], [72, 20, 110], [180, 45, 100], [245, 125, 50], [252, 240, 160]];
  const at = Math.min(Math.max(v, 0), 0.9999) * (stops.length - 1);
  const [low, high] = [stops[Math.floor(at)], stops[Math.floor(at) + 1]];
  return low.map((c, i) => c + (high[i] - c) * (at % 1));
}

// A picture of [from, to) seconds, with frequencies from 0 at the bottom to HZ at the top.
function spectrogram(wav, from, to, width, height) {
  const canvas = document.createElement("canvas");
  Object.assign(canvas, { width, height });
  const context = canvas.getContext("2d");
  const image = context.createImageData(width, height);
  const size = 1024;
  const bins = Math.ceil(HZ / wav.rate * size);
  for (let x = 0; x < width; x++) {
    const middle = Math.round((from + (to - from) * (x + 0.5) / width) * wav.rate);
    const levels = spectrumAt(wav.samples, middle, size, bins);
    for (let y = 0; y < height; y++) {
      const level = levels[Math.floor((height - 1 - y) / height * bins)];
      const color = heat((level - SOFTEST_DB) / (LOUDEST_DB - SOFTEST_DB));
      image.data.set([...color, 255], 4 * (y * width + x));
    }
  }
  context.putImageData(image, 0, 0);
  return canvas.toDataURL();
}

function drawWave(wav, from, to, peak, color, label) {
  const left = 34;
  const plot = new Plot(left, 16, SOUND_WIDTH - left, 64, [from, to], [-peak, peak]);
  const spectrumTop = 88;
  const spectrumHeight = 100;
  let d = "";
  envelopeOf(wav, from, to, plot.width).forEach((range, c) => {
    d += range ? `M${left + c} ${plot.y(range[0]).toFixed(1)}V${(plot.y(range[1]) - 0.5).toFixed(1)}` : "";
  });
  const image = spectrogram(wav, from, to, plot.width, spectrumHeight);
  const hz = new Plot(left, spectrumTop, plot.width, spectrumHeight, [from, to], [0, HZ / 1000]);
  const ticks = [0, 5, 10].map((khz) =>
    `<text class="tick" x="${left - 5}" y="${hz.y(khz) + 4}" text-anchor="end">${khz}k</text>`).join("");
  return svg(spectrumTop + spectrumHeight + 20, `<text x="${left}" y="11">${label}</text>
    <line class="grid" x1="${left}" x2="${SOUND_WIDTH}" y1="48" y2="48"/>
    <path class="wave" d="${d}" stroke="${color}" stroke-width="1"/>
    <image class="spectrogram" href="${image}" x="${left}" y="${spectrumTop}" width="${plot.width}"
      height="${spectrumHeight}" preserveAspectRatio="none"/>${ticks}${hz.xAxis(" s")}`, SOUND_WIDTH);
}

function drawDirection({ title, from, to, played, heard }) {
  const [playedBytes, heardBytes] = [bytesOf(played), bytesOf(heard)];
  if (!playedBytes || !heardBytes) {
    return `<div><h3>${title}</h3><p class="note">The run has left no recording.</p></div>`;
  }
  const [a, b] = [readWav(playedBytes), readWav(heardBytes)];
  const shift = offsetOf(a.samples, b.samples) / b.rate;
  const length = b.samples.length / b.rate;
  const peak = Math.max(0.01, ...[a, b].map((wav) => wav.samples.reduce((max, v) => Math.max(max, Math.abs(v)), 0)));
  const audio = (name) => `<audio controls preload="none"
    src="data:audio/wav;base64,${document.getElementById("file:" + name).textContent.trim()}"></audio>`;
  return `<div data-shift="${shift.toFixed(4)}"><h3>${title}</h3>
    ${drawWave(a, -shift, length - shift, peak, `var(--${from})`, `played by the ${from} (${played})`)}${audio(played)}
    ${drawWave(b, 0, length, peak, `var(--${to})`, `heard by the ${to} (${heard})`)}${audio(heard)}</div>`;
}

// ---- Latency and depth ---------------------------------------------------------------------------

// {from, to, ppm}: parts of the stream in which the host's clock had one offset.
function offsetsOf(entries, begin, end) {
  const changes = entries.filter((e) => e.who === "host" && e.what.startsWith("ppb ") && e.at > begin && e.at < end)
    .map((e) => ({ from: e.at, ppm: Number(e.what.slice(4)) / 1000 }));
  const all = [{ from: begin, ppm: 0 }, ...changes];
  return all.map((stretch, i) => ({ ...stretch, to: i + 1 < all.length ? all[i + 1].from : end }));
}

// Along the lower edge of the plot, where nothing else is drawn.
function legendAt(plot, entries) {
  return entries.map(([color, text], i) => {
    const x = plot.left + 14 + i * 200;
    const y = plot.top + plot.height - 14;
    return `<rect x="${x}" y="${y - 8}" width="18" height="7" rx="2" fill="${color}"/>
      <text x="${x + 24}" y="${y}">${text}</text>`;
  }).join("");
}

function drawLatency(frames, entries) {
  if (!frames.length) {
    put("latency", '<p class="note">The run has left no latencies.</p>');
    return;
  }
  const column = (name) => frames.map((frame) => [Number(frame.t_s), Number(frame[name])]);
  const [times, latency, depth, gained] = [column("t_s"), column("latency_ms"), column("depth_ms"), column("gained_samples")];
  const [begin, end] = [times[0][0], times[times.length - 1][0]];
  const left = 50;
  const top = (values) => Math.ceil(Math.max(...values.map(([, y]) => y)) / 5) * 5;
  const bounds = gained.map(([, y]) => y);
  const area = (y, height, range) => new Plot(left, y, WIDTH - left - 20, height, [begin, end], range);
  const ms = area(36, 200, [0, Math.max(25, top(latency), top(depth))]);
  const samples = area(266, 90, [Math.min(0, ...bounds), Math.max(10, ...bounds)]);
  let out = "";
  for (const { from, to, ppm } of offsetsOf(entries, begin, end)) {
    const color = ppm > 0 ? "#fde8e8" : ppm < 0 ? "#e8effd" : "#f3f4f6";
    const says = ppm === 0 ? "equal clocks" : `host's clock ${ppm > 0 ? "fast" : "slow"} by ${Math.abs(ppm)} ppm`;
    out += `<rect class="offset" x="${ms.x(from)}" y="20" width="${ms.x(to) - ms.x(from)}" height="336" fill="${color}"/>
      <text x="${ms.x(from) + 6}" y="14">${says}</text>`;
  }
  out += `<rect x="${left}" y="${ms.y(15)}" width="${ms.width}" height="${ms.y(10) - ms.y(15)}" fill="#0f9d58" opacity="0.18"/>
    ${ms.yAxis("ms", 5)}${ms.dots(depth, "#0f7d48")}${ms.path(latency, "#c2410c", 2)}
    ${legendAt(ms, [["#c2410c", "latency from app to host"], ["#0f7d48", "depth of the frame buffer"],
      ["#9fd4b8", "its range, 10 to 15 ms"]])}
    ${samples.yAxis("samples made up, less those left out", 4)}${samples.path(gained, "#2563eb", 2)}${samples.xAxis(" s")}`;
  put("latency", svg(378, out));
}

// ---- Numbers, messages, log ----------------------------------------------------------------------

function drawSummary(summary) {
  const rows = Object.entries(summary).map(([key, { host_to_app: a, app_to_host: b }]) =>
    ({ cells: [escaped(key.replace(/_/g, " ").replace(/ ms$/, ", ms")), a, b] }));
  put("summary", tableOf(["", "#host to app", "#app to host"], rows));
  const { host_to_app: down, app_to_host: up } = summary.latency_median_ms;
  const sum = (key) => summary[key].host_to_app + summary[key].app_to_host;
  put("figures", [
    [`${down} ms`, "latency, host to app"], [`${up} ms`, "latency, app to host"],
    [sum("frames_lost_or_repeated"), "frames lost or repeated"], [sum("xruns"), "xruns"],
    [sum("frames_received").toLocaleString("en"), "frames received"], [sum("messages"), "messages"],
  ].map(([value, name]) => `<div class="figure"><b>${value}</b><span>${name}</span></div>`).join(""));
  const whole = sum("frames_lost_or_repeated") === 0 && sum("xruns") === 0;
  const verdict = document.getElementById("verdict");
  verdict.className = whole ? "good" : "bad";
  verdict.textContent = whole ? "Every frame arrived, once and in order, in both directions."
    : "Frames were lost or repeated, or a stream broke.";
}

// The host's card and mixer in the first column, and a column for each stream.
function drawHost(text) {
  if (text) {
    const [card, playback, capture, mixer] = text.trimEnd().split("\n\n");
    const columns = [`${card}\n\n${mixer}`, playback, capture].map((part) => `<pre>${escaped(part)}</pre>`);
    put("host", `<h2>The host's view</h2><div class="views">${columns.join("")}</div>`);
  }
}

function drawMessages(messages) {
  const rows = [...messages].sort((a, b) => a.t_s - b.t_s).map((m) =>
    ({ cells: [m.t_s, m.from === "app" ? '<span class="app">app says</span>' : '<span class="daemon">app is told</span>',
      m.type, m.data, escaped(m.meaning)] }));
  put("messages", `<div class="scroll">${tableOf(["#s", "", "#type", "data", "meaning"], rows)}</div>`);
}

function drawLog(lines) {
  const levels = [...new Set(lines.map((line) => line.level))].sort();
  const boxes = levels.map((level) => {
    const count = lines.filter((line) => line.level === level).length;
    return `<label><input type="checkbox" data-level="${level}" checked> <span class="level ${level}">${level}</span> ${count}</label>`;
  }).join("");
  const rows = lines.map((line) => ({ className: line.level, cells: [line.time, line.thread,
    `<span class="level ${line.level}">${line.level}</span>`, escaped(line.tag), escaped(line.text)] }));
  put("log", `<div class="filter">${boxes}<input type="search" placeholder="only lines with"></div>
    <div class="scroll">${tableOf(["time", "#thread", "", "tag", "text"], rows, "mono")}</div>`);
  const log = document.getElementById("log");
  const filter = () => {
    const shown = Array.from(log.querySelectorAll("[data-level]:checked"), (box) => box.dataset.level);
    const wanted = log.querySelector("[type=search]").value.toLowerCase();
    for (const row of log.querySelectorAll("tbody tr")) {
      row.hidden = !shown.includes(row.className) || !row.textContent.toLowerCase().includes(wanted);
    }
  };
  log.addEventListener("input", filter);
}

function draw() {
  const entries = readTimeline(textOf("timeline.txt"));
  const messages = readCsv(textOf("messages.csv"));
  const verdict = document.getElementById("verdict");
  verdict.className = "bad";
  verdict.textContent = "The run did not come to its end; this is what it has left.";
  drawTimeline(entries, messages);
  put("sound", `<div class="columns">${DIRECTIONS.map(drawDirection).join("")}</div>`);
  drawLatency(readCsv(textOf("latency.csv")), entries);
  drawHost(textOf("host.txt"));
  drawMessages(messages);
  drawLog(readLog(textOf("daemon.log")));
  const summary = textOf("summary.json");
  if (summary) {
    drawSummary(JSON.parse(summary));
  }
  document.body.dataset.height = document.documentElement.scrollHeight;  // for the screenshot
}

draw();
