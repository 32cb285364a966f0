// Microphone capture at the engine's rate: the input (usually 48 kHz) is low-passed and
// resampled to 16 kHz mono with a windowed-sinc filter, then posted as 20 ms Int16 chunks.
'use strict';

const OUT_RATE = 16000;
const CHUNK = 320;
const PHASES = 256;
const ZEROS = 8; // zero crossings on each side of the kernel

class LeMic extends AudioWorkletProcessor {
  constructor() {
    super();
    this.step = sampleRate / OUT_RATE; // input samples per output sample
    const fc = Math.min(1, OUT_RATE / sampleRate) * 0.9; // cutoff, as a fraction of the input Nyquist
    this.half = Math.ceil(ZEROS / fc);
    const taps = 2 * this.half;
    // table[p][k]: weight of input sample (floor(t) - half + 1 + k) for fractional part p / PHASES
    this.table = new Float32Array((PHASES + 1) * taps);
    for (let p = 0; p <= PHASES; p++) {
      const frac = p / PHASES;
      let sum = 0;
      for (let k = 0; k < taps; k++) {
        const x = k - this.half + 1 - frac; // distance from the output instant, in input samples
        const a = Math.PI * fc * x;
        const sinc = Math.abs(x) < 1e-9 ? 1 : Math.sin(a) / a;
        const w = 0.5 + 0.5 * Math.cos(Math.PI * x / (this.half + 1)); // Hann
        const v = sinc * w;
        this.table[p * taps + k] = v;
        sum += v;
      }
      for (let k = 0; k < taps; k++) this.table[p * taps + k] /= sum; // unit gain at DC
    }
    this.taps = taps;
    this.buf = new Float32Array(8192);
    this.base = 0;  // absolute index of buf[0]
    this.count = 0; // samples held in buf
    this.t = this.half; // absolute input time of the next output sample
    this.out = new Int16Array(CHUNK);
    this.fill = 0;
  }

  process(inputs) {
    const chans = inputs[0];
    if (!chans || chans.length === 0) return true;
    const n = chans[0].length;
    if (this.count + n > this.buf.length) { // drop what no output needs any more
      const keep = Math.max(0, Math.floor(this.t) - this.half + 1 - this.base);
      this.buf.copyWithin(0, keep, this.count);
      this.base += keep;
      this.count -= keep;
    }
    for (let i = 0; i < n; i++) {
      let s = 0;
      for (let c = 0; c < chans.length; c++) s += chans[c][i];
      this.buf[this.count + i] = s / chans.length;
    }
    this.count += n;
    const end = this.base + this.count;
    while (Math.floor(this.t) + this.half < end) {
      const i0 = Math.floor(this.t);
      const p = Math.round((this.t - i0) * PHASES);
      const row = p * this.taps;
      const first = i0 - this.half + 1 - this.base;
      let acc = 0;
      for (let k = 0; k < this.taps; k++) acc += this.table[row + k] * this.buf[first + k];
      const v = Math.max(-1, Math.min(1, acc));
      this.out[this.fill++] = Math.round(v * 32767);
      if (this.fill === CHUNK) {
        this.port.postMessage(this.out, [this.out.buffer]);
        this.out = new Int16Array(CHUNK);
        this.fill = 0;
      }
      this.t += this.step;
    }
    return true;
  }
}

registerProcessor('le-mic', LeMic);
