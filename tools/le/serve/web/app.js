// le serve's page: microphone or WAV file up as 16 kHz PCM, frames down onto the canvas.
'use strict';

const $ = (id) => document.getElementById(id);
const RATE = 16000;
const CHUNK = 320; // 20 ms
const KIND = { idle: 0, speech: 1, ramp: 2 };
const NO_SPEECH_INDEX = 0xffffffff;

const page = {
  ws: null,
  ready: false,
  source: null,       // what is being sent: 'mic', 'file' or null
  uttOpen: false,     // an utterance has audio and no end yet
  pending: [],        // utterances whose first speech frame has not been drawn
  utts: [],           // {samples, speech, ramp, e2eMs, pipelineMs, sentAt}
  counts: [0, 0, 0],  // frames received by kind
  skipped: 0,         // frames not drawn because the page was behind
  samplesSent: 0,
  late: 0,
  closed: '',
  draw: Promise.resolve(),
};

function status(text, error) {
  const s = $('status');
  s.textContent = text;
  s.className = error ? 'error' : '';
}

// ---- the socket -------------------------------------------------------------------------

function connect() {
  const ws = new WebSocket((location.protocol === 'https:' ? 'wss://' : 'ws://') + location.host + '/ws');
  ws.binaryType = 'arraybuffer';
  page.ws = ws;
  ws.onmessage = (ev) => (typeof ev.data === 'string' ? onText(ev.data) : onFrame(ev.data));
  ws.onclose = (ev) => {
    page.ready = false;
    page.source = null;
    page.closed = ev.reason || 'connection closed (' + ev.code + ')';
    enable(false);
    status('disconnected: ' + page.closed, true);
  };
}

function onText(text) {
  const m = JSON.parse(text);
  if (m.type === 'hello') {
    const c = $('face');
    c.width = m.width;
    c.height = m.height;
    page.ready = true;
    enable(true);
    status('ready: hold "hold to talk" (or the space bar) and speak, or say a file');
  } else if (m.type === 'status') {
    status(m.text);
  } else if (m.type === 'error') {
    status(m.text, true);
  }
}

function enable(on) {
  for (const id of ['talk', 'interrupt', 'sayfile']) $(id).disabled = !on;
}

// ---- frames -----------------------------------------------------------------------------

// Frames waiting to be decoded and drawn. A page that falls behind (a busy machine, a hidden
// tab) skips frames rather than showing the face later and later; the first speech frame of
// an utterance is always drawn, for the latency figure.
let waiting = 0;
const MAX_WAITING = 3;

function onFrame(buf) {
  const v = new DataView(buf);
  if (buf.byteLength < 48 || v.getUint32(0, true) !== 0x3146454c) return; // "LEF1"
  const f = {
    kind: v.getUint32(4, true),
    speechIndex: v.getUint32(20, true),
    firstFrameMs: v.getFloat64(24, true),
    renderMs: v.getFloat64(32, true),
    late: v.getUint32(40, true),
  };
  received(f);
  const first = f.kind === KIND.speech && f.speechIndex === 0;
  if (waiting >= MAX_WAITING && !first) {
    page.skipped++;
    return;
  }
  waiting++;
  // Decoding is asynchronous; the chain keeps the frames in order.
  const decoded = createImageBitmap(new Blob([new Uint8Array(buf, 48)], { type: 'image/jpeg' }));
  page.draw = page.draw.then(() => decoded).then((bmp) => {
    $('face').getContext('2d').drawImage(bmp, 0, 0);
    bmp.close();
    if (first) firstDrawn(f, performance.now());
  }).catch(() => {}).then(() => { waiting--; });
}

function received(f) {
  if (f.kind < 3) page.counts[f.kind]++;
  const speaking = page.utts.filter((u) => u.e2eMs !== null || u.firstSeen);
  if (f.kind === KIND.speech && f.speechIndex === 0 && page.pending.length) page.pending[0].firstSeen = true;
  const u = f.kind === KIND.speech && f.speechIndex === 0 && page.pending.length ? page.pending[0] : speaking[speaking.length - 1];
  if (u && f.kind === KIND.speech) u.speech++;
  if (u && f.kind === KIND.ramp) u.ramp++;
  page.late = f.late;
  $('render').textContent = f.renderMs.toFixed(1);
  $('late').textContent = String(f.late);
  $('skipped').textContent = String(page.skipped);
  $('counts').textContent = page.counts[1] + ' / ' + page.counts[2] + ' / ' + page.counts[0];
}

function firstDrawn(f, now) {
  if (!page.pending.length) return;
  const u = page.pending.shift();
  u.e2eMs = now - u.sentAt;
  u.pipelineMs = f.firstFrameMs;
  $('ffl').textContent = f.firstFrameMs.toFixed(0);
  $('e2e').textContent = u.e2eMs.toFixed(0);
  $('extra').textContent = (u.e2eMs - f.firstFrameMs).toFixed(0);
}

// ---- audio up ---------------------------------------------------------------------------

function sendPcm(pcm) {
  const ws = page.ws;
  if (!page.ready || ws.readyState !== WebSocket.OPEN) return;
  if (!page.uttOpen) {
    const u = { samples: 0, speech: 0, ramp: 0, e2eMs: null, pipelineMs: null, firstSeen: false, sentAt: performance.now() };
    page.utts.push(u);
    page.pending.push(u);
    page.uttOpen = true;
  }
  ws.send(pcm);
  page.utts[page.utts.length - 1].samples += pcm.length;
  page.samplesSent += pcm.length;
}

function endUtterance(command) {
  if (page.ws && page.ws.readyState === WebSocket.OPEN) page.ws.send(command);
  if (command === 'interrupt') {
    // frames of the cut utterance that never come are not waited for
    page.pending = [];
  }
  page.uttOpen = false;
}

let mic = null; // {ctx, node}

async function startMic() {
  if (mic) return mic;
  const stream = await navigator.mediaDevices.getUserMedia({
    audio: { channelCount: 1, echoCancellation: false, noiseSuppression: false, autoGainControl: false },
  });
  const ctx = new AudioContext();
  await ctx.audioWorklet.addModule('mic-worklet.js');
  const node = new AudioWorkletNode(ctx, 'le-mic', { numberOfInputs: 1, numberOfOutputs: 1 });
  node.port.onmessage = (ev) => {
    if (page.source === 'mic') sendPcm(ev.data);
  };
  const mute = ctx.createGain();
  mute.gain.value = 0; // the graph is pulled through the destination; nothing is heard
  ctx.createMediaStreamSource(stream).connect(node);
  node.connect(mute).connect(ctx.destination);
  await ctx.resume();
  mic = { ctx, node };
  return mic;
}

async function talk(on) {
  if (on) {
    if (!page.ready || page.source === 'file') return;
    $('talk').classList.add('on');
    page.source = 'mic';
    try {
      await startMic();
    } catch (e) {
      page.source = null;
      $('talk').classList.remove('on');
      status('no microphone: ' + e.message, true);
    }
  } else if (page.source === 'mic') {
    $('talk').classList.remove('on');
    page.source = null;
    if (page.uttOpen) endUtterance('end');
  }
}

function interrupt() {
  if (page.source === 'file') stopFile();
  if (page.source === 'mic') $('talk').classList.remove('on');
  page.source = null;
  endUtterance('interrupt');
}

// ---- say this file ----------------------------------------------------------------------

let fileTimer = null;

function stopFile() {
  clearInterval(fileTimer);
  fileTimer = null;
  page.source = null;
}

async function sayFile() {
  const f = $('file').files[0];
  if (!f || !page.ready || page.source) return;
  let audio;
  try {
    // decodeAudioData resamples to the context's rate: 16 kHz here
    const decoded = await new OfflineAudioContext(1, 1, RATE).decodeAudioData(await f.arrayBuffer());
    audio = new Float32Array(decoded.length);
    for (let c = 0; c < decoded.numberOfChannels; c++) {
      const ch = decoded.getChannelData(c);
      for (let i = 0; i < ch.length; i++) audio[i] += ch[i] / decoded.numberOfChannels;
    }
  } catch (e) {
    status('cannot decode ' + f.name + ': ' + e.message, true);
    return;
  }
  const pcm = new Int16Array(audio.length);
  for (let i = 0; i < audio.length; i++) pcm[i] = Math.round(Math.max(-1, Math.min(1, audio[i])) * 32767);
  // As if spoken: a chunk leaves whenever its audio would have been heard.
  page.source = 'file';
  const start = performance.now();
  let at = 0;
  fileTimer = setInterval(() => {
    const due = Math.min(pcm.length, Math.floor(((performance.now() - start) / 1000) * RATE / CHUNK + 1) * CHUNK);
    for (; at < due; at += CHUNK) sendPcm(pcm.slice(at, Math.min(due, at + CHUNK)));
    if (at >= pcm.length) {
      stopFile();
      endUtterance('end');
    }
  }, 10);
}

// ---- wiring -----------------------------------------------------------------------------

const talkButton = $('talk');
talkButton.addEventListener('pointerdown', () => talk(true));
for (const ev of ['pointerup', 'pointerleave', 'pointercancel']) talkButton.addEventListener(ev, () => talk(false));
document.addEventListener('keydown', (e) => {
  if (e.code === 'Space' && !e.repeat && e.target.tagName !== 'INPUT') {
    e.preventDefault();
    talk(true);
  }
});
document.addEventListener('keyup', (e) => {
  if (e.code === 'Space') talk(false);
});
$('interrupt').addEventListener('click', interrupt);
$('sayfile').addEventListener('click', sayFile);

// ?loop=T,P: hands-free, talk T seconds then pause P seconds, over and over (demos, soaks).
const loop = new URLSearchParams(location.search).get('loop');
if (loop) {
  const [t, p] = loop.split(',').map(Number);
  const cycle = async () => {
    if (page.ready) {
      await talk(true);
      await new Promise((r) => setTimeout(r, (t || 3) * 1000));
      talk(false);
    }
    setTimeout(cycle, (p || 2) * 1000);
  };
  setTimeout(cycle, 500);
}

// For scripts driving the page: one line of figures.
window.lePage = {
  summary() {
    const u = page.utts.map((x) => [x.samples, x.speech, x.ramp,
      x.e2eMs === null ? -1 : x.e2eMs.toFixed(1), x.pipelineMs === null ? -1 : x.pipelineMs.toFixed(1)].join(':'));
    return ['ready=' + (page.ready ? 1 : 0), 'idle=' + page.counts[0], 'speech=' + page.counts[1],
      'ramp=' + page.counts[2], 'sent=' + page.samplesSent, 'late=' + page.late, 'skipped=' + page.skipped,
      'closed=' + page.closed.replace(/\s/g, '_'), 'utts=' + u.join(',')].join(' ');
  },
};

connect();
