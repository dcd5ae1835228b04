// What `inspect` says of the update file, and `history` of the journal.
import { h } from './dom.js';
import { seconds } from './words.js';

const kUses = { '#': ['data', 'data'], '+': ['some', 'some data'], '.': ['blank', 'blank, written'], '-': ['skipped', 'blank, skipped'] };
const address = (number) => '0x' + number.toString(16).toUpperCase().padStart(8, '0');
const row = (label, text) => [h('dt', {}, label), h('dd', {}, text)];
const baseName = (path) => path.split(/[/\\]/).pop().replace(/^\d+-/, '');

export function showFile({ name, report }, fits) {
  const word = !report?.canBeWritten ? ['✕ No device can accept this file', 'bad']
    : report.passesHardwareCheck ? [`✓ Usable${fits ? `, fits ${fits} connected` : ''}`, 'good']
      : ['▲ Usable only with --skip-identity-check', 'warn'];
  return h('article', { class: 'card' },
    h('div', {}, h('h3', {}, name), h('p', { class: word[1] }, word[0])),
    report?.problem && h('div', { class: 'note bad' }, h('p', {}, `${report.problem}. ${report.hint}`)),
    report?.kind === 'zip' && h('div', { class: 'scroll', tabindex: 0 },
      rows(['Member', 'Verdict'], report.members.map((member) => [member.name, member.reason || member.verdict]))),
    report?.images.map(image));
}

function image({ member, startAddress, endAddress, size, processorId, hardwareIds, route, writing, obstacle }) {
  return [
    h('dl', {},
      row('Image', baseName(member)),
      row('Addresses', `${address(startAddress)} to ${address(endAddress - 1)}`),
      row('Size', `${size} bytes`),
      row('Processor', processorId == null ? 'any' : address(processorId)),
      row('Hardware', hardwareIds.map((id) => `${id.serie}.${id.type}.${id.module}.${id.variant}`).join(', ') || 'by device id'),
      row('Route', route ? `tunnel, master ${route.master}, slave ${route.slave}` : 'direct'),
      writing && row('Takes at least', writing.times.map((time) => `${seconds(time.secondsAtLeast)} at ${time.baud}`).join(', '))),
    obstacle && h('div', { class: 'note warn' }, h('p', {}, obstacle)),
    writing && blockMap(writing)];
}

function blockMap({ map, blocks, data, blankWritten, blankSkipped, blockSize }) {
  const columns = Math.max(...map.rows.map((text) => text.length));
  const cells = Object.fromEntries(Object.keys(kUses).map((sign) => [sign, '']));
  map.rows.forEach((text, y) => [...text].forEach((sign, x) => { cells[sign] += `M${x} ${y}h.85v.85h-.85z`; }));
  const used = Object.keys(kUses).filter((sign) => cells[sign]);
  const label = `${blocks} blocks of ${blockSize} bytes: ${data} with data, ${blankWritten} blank and written, ${blankSkipped} blank and skipped`;
  return h('figure', { class: 'blocks' },
    h('svg', { class: 'map', viewBox: `0 0 ${columns} ${map.rows.length}`, role: 'img', 'aria-label': label },
      used.map((sign) => h('path', { d: cells[sign], class: kUses[sign][0] }))),
    h('figcaption', {}, h('small', {}, label),
      h('ul', { class: 'legend' }, used.map((sign) => h('li', {}, h('span', { class: 'key ' + kUses[sign][0] }), kUses[sign][1])))));
}

const percent = (part, whole) => whole ? `${Math.round(100 * part / whole)} %` : 'none yet';

export function showJournal(history, path) {
  if (!path) return h('p', { class: 'quiet' }, 'No journal is kept. To keep one, start the page with --journal FILE.');
  if (!history?.updates) return h('p', { class: 'quiet' }, `${baseName(path)} has no update yet.`);
  const { devices, passedFirst, updates, succeeded, failed, stopped, durations, failures } = history;
  return h('div', { class: 'card' },
    h('div', { class: 'figures' },
      h('p', {}, h('strong', {}, percent(passedFirst, devices)), `of ${devices} devices passed at the first update`, yieldBar(passedFirst, devices)),
      h('p', {}, h('strong', {}, String(updates)), `updates: ${succeeded} succeeded, ${failed} failed, ${stopped} stopped`),
      durations && h('p', {}, h('strong', {}, seconds(durations.median)), `at the median, ${seconds(durations.least)} to ${seconds(durations.most)}`),
      durations && histogram(durations.histogram)),
    h('div', { class: 'figures tables' },
      table('Port', history.ports), table('File', history.files.map((file) => ({ ...file, name: baseName(file.name) }))),
      Object.keys(failures).length > 0 && h('div', { class: 'scroll', tabindex: 0 }, rows(['Failure', 'Updates'], Object.entries(failures)))));
}

const yieldBar = (part, whole) => h('svg', { class: 'bars', viewBox: '0 0 100 4', preserveAspectRatio: 'none', 'aria-hidden': 'true' },
  h('rect', { class: 'rest', width: 100, height: 4 }), h('rect', { width: 100 * part / (whole || 1), height: 4 }));

function histogram(bars) {
  const most = Math.max(...bars.map(({ count }) => count), 1);
  const range = ({ from, to }) => to == null ? `over ${from} s` : `${from} to ${to} s`;
  const label = 'Durations: ' + bars.filter(({ count }) => count).map((bar) => `${bar.count} of ${range(bar)}`).join(', ');
  return h('svg', { class: 'bars', viewBox: `0 0 ${bars.length * 30} 70`, role: 'img', 'aria-label': label }, bars.map((bar, i) => [
    h('rect', { x: i * 30 + 3, y: 56 - 44 * bar.count / most, width: 24, height: 44 * bar.count / most + 1, rx: 1.5 }),
    bar.count > 0 && h('text', { x: i * 30 + 15, y: 52 - 44 * bar.count / most, 'text-anchor': 'middle' }, String(bar.count)),
    bar.count > 0 && h('text', { x: i * 30 + 15, y: 67, 'text-anchor': 'middle' }, bar.to == null ? `>${bar.from}` : `<${bar.to}`)]));
}

const rows = (heads, lines) => h('table', {},
  h('thead', {}, h('tr', {}, heads.map((text) => h('th', { scope: 'col' }, text)))),
  h('tbody', {}, lines.map((cells) => h('tr', {}, cells.map((text) => h('td', {}, String(text)))))));
const table = (name, groups) => h('div', { class: 'scroll', tabindex: 0 }, rows([name, 'Updates', 'Succeeded', 'Mean'],
  groups.map((group) => [group.name, group.updates, percent(group.succeeded, group.updates), group.meanSeconds == null ? '' : seconds(group.meanSeconds)])));
