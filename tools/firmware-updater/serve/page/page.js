// The page: shows the events of the bench, and asks it to start commands. It knows no more than they say.
import { h, morph } from './dom.js';
import { showFile, showJournal } from './reports.js';
import { clock, kVerdicts, look, seconds } from './words.js';

const token = location.hash.slice(1) || sessionStorage.getItem('token') || '';
sessionStorage.setItem('token', token);
history.replaceState(null, '', '/');  // it must not stay in the history of the browser

const kLargestFile = 16 << 20;
const kBauds = [9600, 19200, 38400, 57600, 115200, 230400, 460800, 921600];
const byId = (id) => document.getElementById(id);
let bench;  // what the events have said so far
let link = 'Connecting';
let problem = '';  // the last answer to a request of this page

const reset = () => { bench = { devices: [], complaint: '', file: null, jobs: new Map(), asked: new Set(), history: null }; };
reset();

// --- to and from the bench ---

async function send(path, body) {
  try {
    const headers = { 'X-Token': token, 'Content-Type': 'application/octet-stream' };
    const answer = await fetch('/api/' + path, { method: 'POST', headers, body });
    return (await answer.text()).trim();
  } catch {
    return 'the program behind this page does not respond';
  }
}

// For an adapter, with the settings on its card.
async function start(command, device, file, quietly) {
  const card = byId(idOf(nameOf(device)));
  const line = device.kind === 'ftdi' && card
    ? { baud: +card.querySelector('select').value, echo: card.querySelector('input').checked } : {};
  const answer = await send('start', JSON.stringify({ command, device: nameOf(device), file: file?.number, ...line }));
  if (!quietly) say(problem = answer && `${title(device)}: ${answer}.`);
}

async function upload(file) {
  if (!file) return;
  problem = file.size > kLargestFile ? `${file.name} is larger than 16 MiB.` : '';
  if (!problem) problem = await send('file?name=' + encodeURIComponent(file.name), file);
  say(problem);
  draw();
}

async function listen() {
  for (;;) {
    try {
      const answer = await fetch('/api/events', { headers: { 'X-Token': token } });
      if (answer.status === 403) return setLink('Not allowed: open the address that the program has printed', 'bad');
      if (!answer.ok) throw new Error(await answer.text());
      reset();
      setLink('● Connected', 'good');
      await read(answer.body.pipeThrough(new TextDecoderStream()).getReader());
    } catch { /* tried again below */ }
    if (bench.ended) return setLink('■ The program behind this page has ended', 'bad');
    setLink('○ No connection; trying again', 'warn');
    await new Promise((done) => setTimeout(done, 1000));
  }
}

async function read(stream) {
  let rest = '';
  for (;;) {
    const { value, done } = await stream.read();
    if (done) return;
    const events = (rest + value).split('\n\n');
    rest = events.pop();
    for (const event of events) if (event.startsWith('data: ')) take(JSON.parse(event.slice(6)));
    drawSoon();
  }
}

function take(event) {
  if (event.devices) {
    for (const name of event.devices.map(nameOf)) {
      if (!bench.devices.some((device) => nameOf(device) === name)) forgetAnswer(name);
    }
    Object.assign(bench, { devices: event.devices, complaint: event.complaint });
  }
  if ('report' in event) bench.file = { ...event, number: event.file };
  if (event.journal) Object.assign(bench, event);
  if (event.stopping || event.ended) Object.assign(bench, event);
  if (event.job) takeOfJob(event);
}

function takeOfJob(event) {
  const { jobs } = bench;
  if (event.command) {
    const { info, work } = jobsOf(event.device);
    const before = writes(event) ? work : info;
    jobs.delete(before?.job);
    // The last answer is shown until the next one comes.
    jobs.set(event.job, { ...event, phases: new Map(), logs: [], answer: before?.answer });
    if (writes(event)) say(`${title(event.device)}: ${event.command} begins.`);
  }
  const job = jobs.get(event.job);
  if (!job) return;
  if (event.log) job.logs.push(event.log);
  if (event.line) takeLine(job, event.line, event.at);
  if ('exit' in event) {
    Object.assign(job, event);
    if (writes(job)) say(`${title(job.device)}: ${job.result?.state.text ?? job.logs.at(-1) ?? ''}`);
  }
}

function takeLine(job, line, at) {
  switch (line.event) {
    case undefined: job.answer = line; break;
    case 'phase': job.phases.set(line.phase, { ...line, at }); break;
    case 'bytes': job.bytes = line; break;
    case 'retry': job.logs.push(`Not answered in time: ${line.request}`); break;
    case 'note': job.logs.push(line.text); break;
    case 'result': job.result = line; break;
  }
}

const forgetAnswer = (name) => {
  for (const [number, job] of bench.jobs) {
    if (!writes(job) && 'exit' in job && nameOf(job.device) === name) bench.jobs.delete(number);
  }
};

// A device that appears is asked who it is, and again with each new file whether that fits. An adapter is
// asked only on request: anything may be connected to it.
function askDevices() {
  for (const device of bench.devices) {
    const { info, work } = jobsOf(device);
    const file = usableFile();
    if (!device.usable || isRunning(info) || isRunning(work)) continue;
    if (device.kind === 'ftdi' && !info) continue;
    const asked = info && (!file || info.file?.number === file.number);
    const key = `${nameOf(device)} ${file?.number} ${info?.job}`;
    if (asked || bench.asked.has(key)) continue;
    bench.asked.add(key);
    start('info', device, file, true);
  }
}

// --- facts ---

const nameOf = (device) => `${device.kind} ${device.address}`;
const idOf = (name) => 'device-' + name.replace(/[^\w-]/g, (sign) => '_' + sign.charCodeAt(0));
const title = (device) => device.kind === 'ftdi' ? `Adapter ${device.address}` : `Port ${device.address}`;
const writes = (job) => job.command === 'update' || job.command === 'recover';
const isRunning = (job) => Boolean(job) && !('exit' in job);
const usableFile = () => bench.file?.report?.canBeWritten ? bench.file : null;
const hex = (number) => number == null ? null : '0x' + number.toString(16).toUpperCase().padStart(4, '0');
const jobsOf = (device) => {
  const here = [...bench.jobs.values()].filter((job) => nameOf(job.device) === nameOf(device));
  return { info: here.find((job) => !writes(job)), work: here.find(writes) };
};

// The devices of the list; those that are gone stay while their last update needs attention.
function shownDevices() {
  const known = new Map(bench.devices.filter((device) => device.address).map((device) => [nameOf(device), device]));
  for (const job of bench.jobs.values()) {
    const listed = known.get(nameOf(job.device));
    if (!listed && writes(job)) known.set(nameOf(job.device), { ...job.device, usable: false, gone: true });
    if (listed && !listed.usb?.serialNumber) listed.usb = job.device.usb;  // not readable while it is used
  }
  return [...known.values(), ...bench.devices.filter((device) => !device.address)]
    .sort((a, b) => nameOf(a).localeCompare(nameOf(b), 'en', { numeric: true }));
}

// What is known last counts.
const newest = (info, work) => (info?.end ?? 0) > (work?.end ?? 0) ? info : work;
function stateOf(device, { info, work }) {
  if (isRunning(work)) return work.stop ? 'stopping' : work.command;
  if (isRunning(info)) return info.command;
  if (device.gone) return 'gone';
  if (!device.usable) return 'unusable';
  const last = newest(info, work);
  if (!last) return 'not-asked';
  return last.result?.state.device ?? last.answer?.state ?? 'unknown';
}

// The command in the tool's words becomes a button, if the page has it.
const nextCommand = (text) => ['update', 'recover'].find((command) => text?.startsWith(`firmware-updater ${command} `));

// --- drawing ---

const button = (text, action, attributes = {}) => h('button', { type: 'button', 'data-action': action, ...attributes }, text);
const row = (label, text) => text != null && text !== '' && [h('dt', {}, label), h('dd', {}, text)];

function card(device) {
  const jobs = jobsOf(device);
  const { info, work } = jobs;
  const [word, symbol, colour] = look(stateOf(device, jobs));
  return h('li', { class: 'card', id: idOf(nameOf(device)) },
    h('div', { class: 'top' },
      h('h3', {}, device.address ? title(device) : device.description),
      h('span', { class: 'badge ' + colour }, h('span', { 'aria-hidden': 'true' }, symbol), word)),
    facts(device, jobs),
    stateOf(device, jobs) === 'unusable' && device.obstacles.map((obstacle) =>
      h('div', { class: 'note bad' }, h('p', {}, `${obstacle.text}: ${obstacle.hint}`))),
    !isRunning(work) && info?.exit > 0 && info.exit !== 7 && h('div', { class: 'note bad' }, h('p', {}, info.logs.join(' '))),
    !isRunning(work) && fit(info),
    work && progress(work),
    work && !isRunning(work) && ending(device, work),
    actions(device, jobs),
    work?.logs.length > 0 && h('details', {}, h('summary', {}, `Log, ${work.logs.length} lines`),
      h('pre', { tabindex: 0 }, work.logs.join('\n'))));
}

function facts(device, { info, work }) {
  const last = newest(info, work);
  const answer = last?.answer ?? last?.result?.after ?? last?.result?.before;
  const all = { ...info?.answer, ...Object.fromEntries(Object.entries(answer ?? {}).filter(([, value]) => value != null)) };
  return h('dl', {},
    row('Product', device.usb?.product),
    row('Serial number', device.usb?.serialNumber),
    row('Software', hex(all.softwareId)),
    row('Device id', hex(all.deviceId)),
    row('Hardware', all.hardware ? Object.values(all.hardware).join('.') : hex(all.hardwareId)),
    row('Bootloader', all.bootloaderVersion),
    row('Flash', info?.answer?.verification && kVerdicts[info.answer.verification.verdict]),
    row('Behind', all.through && `master ${all.through.master}, slave ${all.through.slave}`));
}

const knowsFit = (info) => usableFile() && info?.file?.number === bench.file.number && info.answer && 'exit' in info &&
  info.answer.state !== 'silent';

function fit(info) {
  if (!knowsFit(info)) return null;
  const { misfit } = info.answer;
  return misfit
    ? h('div', { class: 'note warn' }, h('p', {}, `✕ ${bench.file.name} does not fit: ${misfit}`))
    : h('p', { class: 'good' }, `✓ ${bench.file.name} fits, as far as the device answers.`);
}

function progress(job) {
  const { written = 0, due = 0 } = job.result?.bytes ?? job.bytes ?? {};
  const percent = due ? Math.floor(100 * written / due) : 0;
  return h('div', { class: 'card-progress' },
    h('p', { class: 'top' },
      h('span', {}, `${look(job.command)[isRunning(job) ? 0 : 3]}: ${job.file.name}`),
      h('span', { class: 'quiet' }, due ? `${written} of ${due} bytes, ${percent} %` : '')),
    isRunning(job) && h('progress', { max: due || 1, value: written, 'aria-label': `Written to ${title(job.device)}` }),
    h('ol', { class: 'phases', 'aria-label': 'Phases' }, [...job.phases.values()].map(phase)));
}

function phase({ phase: name, state, seconds: time, at }) {
  const [symbol, colour] = { begins: ['›', 'busy'], ok: ['✓', 'good'], stopped: ['■', 'warn'] }[state] ?? ['✕', 'bad'];
  const shown = state === 'begins' ? Math.max(0, Math.round((Date.now() - at) / 1000)) + ' s' : seconds(time);
  return h('li', { class: colour }, `${symbol} ${name} ${shown}`);
}

function ending(device, job) {
  const { result } = job;
  const [, , colour] = look(result?.state.device ?? 'unknown');
  const command = nextCommand(result?.state.next);
  const end = `${job.command} ended at ${clock(job.end)} after ${seconds((job.end - job.begin) / 1000)}`;
  return h('div', { class: 'note ' + (result?.ending === 'succeeded' ? colour : colour === 'good' ? 'warn' : colour) },
    result?.failure && h('p', {}, `${result.failure.text} ${result.failure.hint}`),
    h('p', {}, h('strong', {}, result?.state.text ?? (job.logs.at(-1) || `It ended with exit code ${job.exit}.`))),
    h('p', { class: 'quiet' }, end),
    command && !device.gone && h('p', { class: 'actions' },
      button(`${look(command)[3]} with ${job.file.name}`, command, { class: 'first', 'data-file': job.file.number, disabled: !device.usable })));
}

function actions(device, { info, work }) {
  if (isRunning(work)) {
    return h('div', { class: 'actions' }, button(work.stop ? 'Stop at once' : 'Stop', 'stop', { 'data-job': work.job }));
  }
  if (!(device.usable || isRunning(info)) || bench.stopping) return null;
  const file = usableFile();
  const misfit = info?.file?.number === file?.number && info?.answer?.misfit;
  const { answer, result } = newest(info, work) ?? {};
  const recommended = nextCommand(result?.state.next ?? answer?.next) ?? 'update';
  const command = (name) => button(look(name)[3], name,
    { class: name === recommended ? 'first' : '', disabled: !file || Boolean(misfit), 'aria-label': `${look(name)[3]} ${title(device)}` });
  return h('div', { class: 'actions' },
    device.kind === 'ftdi' && [
      h('label', {}, 'Baud', h('select', {}, kBauds.map((baud) => h('option', { selected: baud === 19200 }, String(baud))))),
      h('label', {}, h('input', { type: 'checkbox' }), 'Line echoes')],
    command('update'), command('recover'),
    ['verify', 'info'].map((name) => button(look(name)[3], name, { 'aria-label': `${look(name)[3]} ${title(device)}`, disabled: isRunning(info) })));
}

// Those that the file is known to fit.
const fitting = () => bench.devices.filter((device) => {
  const { info } = jobsOf(device);
  return knowsFit(info) && !info.answer.misfit;
});
const candidates = () => fitting().filter((device) => device.usable && !isRunning(jobsOf(device).work));
const running = () => [...bench.jobs.values()].filter((job) => writes(job) && isRunning(job));

function draw() {
  const able = candidates().length;
  const devices = shownDevices();
  const into = (id, ...children) => morph(byId(id), h(byId(id).localName, { id, class: byId(id).className || false }, ...children));
  into('file', problem && h('div', { class: 'note bad', role: 'alert' }, h('p', {}, problem)),
    bench.file && showFile(bench.file, fitting().length));
  into('together', h('div', { class: 'actions' },
    able > 1 && button(`Update all that fit (${able})`, 'all'),
    running().length > 1 && button('Stop all', 'stop-all')));
  into('devices', devices.length > 0
    ? h('ul', { class: 'cards' }, devices.map(card))
    : h('p', { class: 'card' }, bench.complaint.replaceAll('firmware-updater: ', '').replace('hint: ', '') || 'Looking for devices'));
  into('journal', showJournal(bench.history, bench.journal));
  const [text, colour] = bench.stopping && !bench.ended ? ['■ The program is about to end', 'warn'] : link;
  morph(byId('link'), h('p', { id: 'link', role: 'status', class: colour }, text));
}

let timer = 0;
function drawSoon() {
  timer ||= setTimeout(() => { timer = 0; draw(); askDevices(); }, 60);
}
setInterval(() => { if (running().length > 0) draw(); }, 1000);

function setLink(text, colour) {
  link = [text, colour];
  draw();
}

// For those who do not see the page. Events of the past are not news.
function say(text) {
  if (text) byId('news').replaceChildren(text);
}

// --- the user ---

document.addEventListener('click', ({ target }) => {
  const pressed = target.closest('button');
  const name = pressed?.closest('.card')?.id;
  const device = shownDevices().find((candidate) => idOf(nameOf(candidate)) === name);
  const file = pressed?.dataset.file ? { number: +pressed.dataset.file } : usableFile();
  const stop = (job) => { job.stop = true; send('stop', JSON.stringify({ job: job.job })); drawSoon(); };
  switch (pressed?.dataset.action) {
    case undefined: return;
    case 'stop': return stop(bench.jobs.get(+pressed.dataset.job));
    case 'stop-all': return running().forEach(stop);
    case 'all': return candidates().forEach((one) => start('update', one, file));
    default: start(pressed.dataset.action, device, file).then(draw);
  }
});
byId('choose').addEventListener('change', ({ target }) => { upload(target.files[0]); target.value = ''; });
for (const type of ['dragenter', 'dragover', 'dragleave', 'drop']) {
  document.addEventListener(type, (event) => {
    event.preventDefault();
    byId('drop').classList.toggle('over', type === 'dragenter' || type === 'dragover');
    if (type === 'drop') upload(event.dataTransfer.files[0]);
  });
}
listen();
