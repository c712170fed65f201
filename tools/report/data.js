// SPDX-License-Identifier: Apache-2.0
// Reads what ./run has left: text, tables and sound from the files in the page; and calculates with
// the sound. Nothing here draws.
"use strict";

// The file's bytes, or null if the run has not left it.
function bytesOf(name) {
  const element = document.getElementById("file:" + name);
  return element && Uint8Array.from(atob(element.textContent.trim()), (c) => c.charCodeAt(0));
}

function textOf(name) {
  const bytes = bytesOf(name);
  return bytes ? new TextDecoder().decode(bytes) : "";
}

function linesOf(text) {
  return text.split("\n").filter((line) => line !== "");
}

// Rows as objects with the names of the first line; a quoted field may contain commas.
function readCsv(text) {
  const rows = linesOf(text).map((line) =>
    Array.from(line.matchAll(/(?:^|,)(?:"([^"]*)"|([^,]*))/g), (field) => field[1] ?? field[2]));
  const names = rows.shift() || [];
  return rows.map((row) => Object.fromEntries(names.map((name, i) => [name, row[i]])));
}

// {at, who, what} of "   1.234 s  who     what".
function readTimeline(text) {
  return linesOf(text).map((line) => line.match(/^ *([\d.]+) s +(\S+) +(.*)$/)).filter(Boolean)
    .map(([, at, who, what]) => ({ at: Number(at), who, what }));
}

// {time, thread, level, tag, text} of "01-01 00:00:01.259    94    97 D UAFIFO  : text".
function readLog(text) {
  return linesOf(text).map((line) => {
    const found = line.match(/^(\S+ \S+) +\d+ +(\d+) ([A-Z]) (\S+) *: ?(.*)$/);
    return found ? { time: found[1], thread: found[2], level: found[3], tag: found[4], text: found[5] }
      : { time: "", thread: "", level: "", tag: "", text: line };
  });
}

// {rate, samples}: the first channel of a RIFF WAV of 16 bits.
function readWav(bytes) {
  const view = new DataView(bytes.buffer);
  let channels = 1;
  let rate = 48000;
  for (let at = 12; at + 8 <= bytes.length; at += 8 + view.getUint32(at + 4, true)) {
    const id = String.fromCharCode(...bytes.subarray(at, at + 4));
    if (id === "fmt ") {
      channels = view.getUint16(at + 10, true);
      rate = view.getUint32(at + 12, true);
    } else if (id === "data") {
      const size = Math.min(view.getUint32(at + 4, true), bytes.length - at - 8);
      const samples = new Float32Array(Math.floor(size / 2 / channels));
      for (let i = 0; i < samples.length; i++) {
        samples[i] = view.getInt16(at + 8 + 2 * i * channels, true) / 32768;
      }
      return { rate, samples };
    }
  }
  return { rate, samples: new Float32Array(0) };
}

// The position of `part` in `whole`, found by the samples around its loudest one; 0 if it is not
// there.
function offsetOf(part, whole) {
  const loudest = part.reduce((best, v, i) => Math.abs(v) > Math.abs(part[best]) ? i : best, 0);
  const begin = Math.max(loudest - 32, 0);
  const probe = part.subarray(begin, begin + 64);
  for (let at = 0; at + probe.length <= whole.length; at++) {
    if (probe.every((v, i) => v === whole[at + i])) {
      return at - begin;
    }
  }
  return 0;
}

// In place; the length must be a power of two.
function fft(re, im) {
  const n = re.length;
  for (let i = 1, j = 0; i < n; i++) {
    let bit = n >> 1;
    for (; j & bit; bit >>= 1) {
      j ^= bit;
    }
    j ^= bit;
    if (i < j) {
      [re[i], re[j]] = [re[j], re[i]];
      [im[i], im[j]] = [im[j], im[i]];
    }
  }
  for (let size = 2; size <= n; size *= 2) {
    const half = size / 2;
    for (let k = 0; k < half; k++) {
      const wr = Math.cos(-2 * Math.PI * k / size);
      const wi = Math.sin(-2 * Math.PI * k / size);
      for (let i = k; i < n; i += size) {
        const tr = wr * re[i + half] - wi * im[i + half];
        const ti = wr * im[i + half] + wi * re[i + half];
        re[i + half] = re[i] - tr;
        im[i + half] = im[i] - ti;
        re[i] += tr;
        im[i] += ti;
      }
    }
  }
}

// The level in dB of full scale of each of the lowest `bins` frequencies, around sample `middle`.
function spectrumAt(samples, middle, size, bins) {
  const re = new Float64Array(size);
  const im = new Float64Array(size);
  for (let i = 0; i < size; i++) {
    const window = 0.5 - 0.5 * Math.cos(2 * Math.PI * i / size);
    re[i] = window * (samples[middle - size / 2 + i] || 0);
  }
  fft(re, im);
  return Array.from({ length: bins }, (_, k) =>
    20 * Math.log10(Math.hypot(re[k], im[k]) / (size / 4) + 1e-9));
}

// The smallest and the largest sample in each of `columns` parts of [from, to) seconds.
function envelopeOf(wav, from, to, columns) {
  return Array.from({ length: columns }, (_, c) => {
    const begin = Math.round((from + (to - from) * c / columns) * wav.rate);
    const end = Math.round((from + (to - from) * (c + 1) / columns) * wav.rate);
    const part = wav.samples.subarray(Math.max(begin, 0), Math.max(end, 0));
    return part.length ? [part.reduce((a, b) => Math.min(a, b)), part.reduce((a, b) => Math.max(a, b))] : null;
  });
}
