// The page: shows the events of the bench, and asks it to start commands. It knows no more than they say.
import { facts, h, morphChildren, note } from './dom.js';
import { showFile, showJournal } from './reports.js';
import { baseName, hex, look, percent, seconds, verdict } from './words.js';

const token = location.hash.slice(1) || sessionStorage.getItem('token') || '';
sessionStorage.setItem('token', token);
history.replaceState(null, '', '/');  // it must not stay in the history of the browser

const kLargestFile = 16 << 20;
const kBauds = [9600, 19200, 38400, 57600, 115200, 230400, 460800, 921600];
const byId = (id) => document.getElementById(id);
const newBench = () => ({ jobs: {}, asked: new Set() });
let bench = newBench();  // with all that the events have said so far
let problem = '';  // the last answer to a request of this page

// --- to and from the bench ---

async function send(path, body) {
  try {
    const headers = { 'X-Token': token, 'Content-Type': 'application/octet-stream' };
    return await (await fetch('/api/' + path, { method: 'POST', headers, body })).text();
  } catch {
    return 'the program behind this page does not respond';
  }
}

// For an adapter, with the settings on its card.
async function start(command, device, file, quietly) {
  const [baud, echo] = byId(idOf(device))?.querySelectorAll('select, input') ?? [];
  const request = JSON.stringify({ command, device: nameOf(device), file, baud: +baud?.value, echo: echo?.checked });
  let answer = await send('start', request);
  // A device that is asked questions is left to answer them first.
  for (let tries = 0; !quietly && answer === 'the device is busy' && tries < 40; ++tries) {
    await new Promise((done) => setTimeout(done, 250));
    answer = await send('start', request);
  }
  if (!quietly) complain(answer && `${title(device)}: ${answer}.`);
}

async function upload(file) {
  if (file) complain(file.size > kLargestFile ? `${file.name} is larger than 16 MiB.` : await send('file?name=' + encodeURIComponent(file.name), file));
}

async function listen() {
  for (;;) {
    try {
      const answer = await fetch('/api/events', { headers: { 'X-Token': token } });
      if (answer.status === 403) return setLink('Not allowed: open the address that the program has printed', 'bad');
      if (!answer.ok) throw new Error(await answer.text());
      bench = newBench();
      setLink('● Connected', 'good');
      await read(answer.body.pipeThrough(new TextDecoderStream()).getReader());
    } catch { /* tried again below */ }
    if (bench.stopping) return setLink('■ The program behind this page has ended', 'bad');
    setLink('○ No connection; trying again', 'warn');
    await new Promise((done) => setTimeout(done, 1000));
  }
}

async function read(stream) {
  for (let rest = ''; ;) {
    const { value, done } = await stream.read();
    if (done) return;
    const events = (rest + value).split('\n\n');
    rest = events.pop();
    for (const event of events) if (event.startsWith('data: ')) take(JSON.parse(event.slice(6)));
    drawSoon();
  }
}

function take(event) {
  if (event.stopping) setLink('■ The program is about to end', 'warn');
  if (event.forget) delete bench.jobs[event.forget];
  if (!event.job) Object.assign(bench, event);
  const { at, device, line, log } = event;
  // The last answer is shown until the next one comes.
  if (device) bench.jobs[event.job] = { ...event.request, name: event.job, device, begin: at, phases: {}, logs: [], answer: bench.jobs[event.job]?.answer };
  const job = bench.jobs[event.job];
  if (!job) return;
  if (line) job[line.event ?? 'answer'] = line;
  if (line?.phase) job.phases[line.phase] = { ...line, at };
  const text = log || line?.text || (line?.request && `Not answered in time: ${line.request}`);
  if (text) job.logs.push(text);
  if ('exit' in event) Object.assign(job, { exit: event.exit, end: at });
  if (writes(job) && (device || job.end)) say(`${title(job.device)}: ${job.end ? endingOf(job) : job.command + ' begins.'}`);
}

// A device that appears is asked who it is, and again with each new file whether that fits. An adapter is
// asked only on request: anything may be connected to it.
function askDevices() {
  for (const device of listed()) {
    const { info, running } = jobsOf(device);
    const file = usableFile();
    const key = `${nameOf(device)} ${file} ${info?.begin}`;
    const isAsked = info ? !file || info.file === file : device.kind === 'ftdi';
    if (!device.usable || running || isAsked || bench.asked.has(key)) continue;
    bench.asked.add(key);
    start('info', device, file, true);
  }
}

// --- facts ---

const nameOf = (device) => `${device.kind} ${device.address}`;
const idOf = (device) => 'device-' + nameOf(device).replace(/[^\w-]/g, (sign) => '_' + sign.charCodeAt(0));
const title = (device) => `${device.kind === 'ftdi' ? 'Adapter' : 'Port'} ${device.address}`;
const writes = (job) => job.name.endsWith(' work');
const endingOf = (job) => job.result?.state.text ?? (job.logs.at(-1) || `It ended with exit code ${job.exit}.`);
const listed = () => bench.list?.document?.devices ?? [];
const usableFile = () => bench.inspect?.document?.canBeWritten ? bench.file : undefined;
const runningWork = () => Object.values(bench.jobs).filter((job) => writes(job) && !job.end);

// The last asking and the last update of a device, the one that runs, and the one that ended last.
function jobsOf(device) {
  const [info, work] = ['info', 'work'].map((kind) => bench.jobs[`${nameOf(device)} ${kind}`]);
  const running = [work, info].find((job) => job && !job.end);
  return { info, work, running, last: (info?.end ?? 0) > (work?.end ?? 0) ? info : work };
}

// The devices of the list. An adapter in use may not be listed, nor one that needs attention after its update.
function shownDevices() {
  const known = new Map(listed().map((device) => [device.address ? nameOf(device) : device, device]));
  for (const job of Object.values(bench.jobs)) {
    const there = known.get(nameOf(job.device));
    if (!there) known.set(nameOf(job.device), { ...job.device, usable: !writes(job), gone: writes(job) });
    if (there && !there.usb?.serialNumber) there.usb = job.device.usb;  // not readable while it is used
  }
  return [...known.values()].sort((a, b) => nameOf(a).localeCompare(nameOf(b), 'en', { numeric: true }));
}

function stateOf(device) {
  const { running, last } = jobsOf(device);
  if (running) return running.stop ? 'stopping' : running.command;
  if (device.gone || !device.usable) return device.gone ? 'gone' : 'unusable';
  return last ? last.result?.state.device ?? last.answer?.state ?? 'unknown' : 'not-asked';
}

// Of a device that was asked whether the file fits: whether it does.
function fits(device) {
  const { info } = jobsOf(device);
  const knows = usableFile() && info?.file === bench.file && info.end && info.answer && info.answer.state !== 'silent';
  return knows ? !info.answer.misfit : undefined;
}
const fitting = () => listed().filter(fits);
const candidates = () => fitting().filter((device) => device.usable && !jobsOf(device).running);

// The command in the tool's words becomes a button, if the page has it.
const nextCommand = (text) => ['update', 'recover'].find((command) => text?.startsWith(`firmware-updater ${command} `));

// --- drawing ---

const button = (text, action, attributes = {}) => h('button', { type: 'button', 'data-action': action, ...attributes }, text);

function card(device) {
  const { info, work, running } = jobsOf(device);
  const state = stateOf(device);
  const [word, symbol, colour] = look(state);
  const atRest = running !== work || !work;
  return h('li', { class: 'card', id: idOf(device) },
    h('div', { class: 'top' },
      h('h3', {}, device.address ? title(device) : device.description),
      h('span', { class: 'badge ' + colour }, h('span', { 'aria-hidden': 'true' }, symbol), word)),
    deviceFacts(device),
    state === 'unusable' && device.obstacles.map(({ text, hint }) => note('bad', `${text}: ${hint}`)),
    atRest && info?.exit > 0 && info.exit !== 7 && note('bad', info.logs.join(' ')),
    atRest && fits(device) === false && note('warn', `✕ ${bench.name} does not fit: ${info.answer.misfit}`),
    atRest && fits(device) && h('p', { class: 'good' }, `✓ ${bench.name} fits, as far as the device answers.`),
    device.kind === 'ftdi' && settings(device, work ?? info),
    work && progress(work),
    work?.end && ending(device, work),
    actions(device),
    work?.logs.length > 0 && h('details', {}, h('summary', {}, `Log, ${work.logs.length} lines`),
      h('pre', { tabindex: 0 }, work.logs.join('\n'))));
}

function deviceFacts(device) {
  const { info, last } = jobsOf(device);
  const answer = last?.answer ?? last?.result?.after ?? last?.result?.before ?? {};
  const all = { ...info?.answer, ...Object.fromEntries(Object.entries(answer).filter(([, value]) => value != null)) };
  return facts({
    Product: device.usb?.product,
    'Serial number': device.usb?.serialNumber,
    Software: hex(all.softwareId),
    'Device id': hex(all.deviceId),
    Hardware: all.hardware ? Object.values(all.hardware).join('.') : hex(all.hardwareId),
    Bootloader: all.bootloaderVersion,
    Flash: verdict(info?.answer?.verification?.verdict),
    Behind: all.through && `master ${all.through.master}, slave ${all.through.slave}`,
  });
}

function progress(job) {
  const { written = 0, due = 0 } = job.result?.bytes ?? job.bytes ?? {};
  return h('div', {},
    h('p', { class: 'top' },
      h('span', {}, `${look(job.command)[job.end ? 3 : 0]}: ${baseName(job.file)}`),
      h('span', { class: 'quiet' }, due ? `${written} of ${due} bytes, ${percent(written, due)}` : '')),
    !job.end && h('progress', { max: due || 1, value: written, 'aria-label': `Written to ${title(job.device)}` }),
    h('ol', { class: 'phases', 'aria-label': 'Phases' }, Object.values(job.phases).map(phase)));
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
  return h('div', { class: 'note ' + (colour === 'good' && result.ending !== 'succeeded' ? 'warn' : colour) },
    result?.failure && h('p', {}, `${result.failure.text} ${result.failure.hint}`),
    h('p', {}, h('strong', {}, endingOf(job))),
    h('p', { class: 'quiet' }, `${job.command} ended at ${new Date(job.end).toLocaleTimeString()} after ${seconds((job.end - job.begin) / 1000)}`),
    command && !device.gone && h('p', { class: 'actions' },
      button(`${look(command)[3]} with ${baseName(job.file)}`, command, { class: 'first', 'data-file': job.file, disabled: !device.usable })));
}

// Of an adapter's line, as the last command had them. They keep their place while they are changed.
const settings = (device, { baud = 19200, echo = false } = {}) => h('div', { class: 'actions', id: idOf(device) + '-line' },
  h('label', {}, 'Baud', h('select', {}, kBauds.map((one) => h('option', { selected: one === baud }, String(one))))),
  h('label', {}, h('input', { type: 'checkbox', checked: echo }), 'Line echoes'));

function actions(device) {
  const { work, running, last } = jobsOf(device);
  if (work && running === work) return h('div', { class: 'actions' }, button(work.stop ? 'Stop at once' : 'Stop', 'stop'));
  if (!(device.usable || running) || bench.stopping) return null;
  const recommended = nextCommand(last?.result?.state.next ?? last?.answer?.next) ?? 'update';
  const command = (name, disabled) => button(look(name)[3], name, {
    class: name === recommended ? 'first' : false, disabled, 'aria-label': `${look(name)[3]} ${title(device)}` });
  return h('div', { class: 'actions' },
    ['update', 'recover'].map((name) => command(name, !usableFile() || fits(device) === false)), ['verify', 'info'].map((name) => command(name, Boolean(running))));
}

function draw() {
  const able = candidates().length;
  const devices = shownDevices();
  const into = (id, ...children) => morphChildren(byId(id), [...h('div', {}, ...children).childNodes]);
  into('file', problem && h('div', { role: 'alert' }, note('bad', problem)),
    bench.inspect && showFile(bench.name, bench.inspect.document, fitting().length));
  into('together', able > 1 && button(`Update all that fit (${able})`, 'all'), runningWork().length > 1 && button('Stop all', 'stop-all'));
  into('devices', devices.length > 0
    ? h('ul', { class: 'cards' }, devices.map(card))
    : h('p', { class: 'card' }, bench.list?.complaint.replaceAll(/firmware-updater: |hint: /g, '') || 'Looking for devices'));
  into('journal', showJournal(bench.journal, bench.history?.document));
}

let timer = 0;
function drawSoon() {
  timer ||= setTimeout(() => { timer = 0; askDevices(); draw(); }, 60);
}
setInterval(() => { if (runningWork().length > 0) draw(); }, 1000);

function complain(text) {
  problem = text;
  draw();
}

const setLink = (text, colour) => Object.assign(byId('link'), { textContent: text, className: colour });

// For those who do not see the page. Events of the past are not news.
function say(text) {
  if (text) byId('news').replaceChildren(text);
}

// --- the user ---

document.addEventListener('click', ({ target }) => {
  const pressed = target.closest('button');
  const device = shownDevices().find((candidate) => idOf(candidate) === pressed?.closest('.card')?.id);
  const stop = (job) => { job.stop = true; send('stop', job.name); drawSoon(); };
  switch (pressed?.dataset.action) {
    case undefined: return;
    case 'stop': return stop(jobsOf(device).work);
    case 'stop-all': return runningWork().forEach(stop);
    case 'all': return candidates().forEach((one) => start('update', one, bench.file));
    default: start(pressed.dataset.action, device, pressed.dataset.file ?? usableFile());
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
