// The reports of `inspect` on the update file, and of `history` on the journal.
import { facts, h, note, table } from './dom.js';
import { baseName, hex, percent, seconds } from './words.js';

const kUses = { '#': ['busy', 'data'], '+': ['busy pale', 'some data'], '.': ['plain pale', 'blank, written'], '-': ['rest', 'blank, skipped'] };

export function showFile(name, report, fits) {
  const [word, colour] = !report?.canBeWritten ? ['✕ No device can accept this file', 'bad']
    : report.passesHardwareCheck ? [`✓ Usable${fits ? `, fits ${fits} connected` : ''}`, 'good']
      : ['▲ Usable only with --skip-identity-check', 'warn'];
  return h('article', { class: 'card' },
    h('div', {}, h('h3', {}, name), h('p', { class: colour }, word)),
    report?.problem && note('bad', `${report.problem}. ${report.hint}`),
    report?.kind === 'zip' && table(['Member', 'Verdict'], report.members.map((member) => [member.name, member.reason || member.verdict])),
    report?.images.map(image));
}

function image({ member, startAddress, endAddress, size, processorId, hardwareIds, route, writing, obstacle }) {
  return [
    facts({
      Image: baseName(member),
      Addresses: `${hex(startAddress, 8)} to ${hex(endAddress - 1, 8)}`,
      Size: `${size} bytes`,
      Processor: hex(processorId, 8) ?? 'any',
      Hardware: hardwareIds.map(({ serie, type, module, variant }) => [serie, type, module, variant].join('.')).join(', ') || 'by device id',
      Route: route ? `tunnel, master ${route.master}, slave ${route.slave}` : 'direct',
      'Takes at least': writing?.times.map((time) => `${seconds(time.secondsAtLeast)} at ${time.baud}`).join(', '),
    }),
    obstacle && note('warn', obstacle),
    writing && blockMap(writing)];
}

function blockMap({ map, blocks, data, blankWritten, blankSkipped, blockSize }) {
  const columns = Math.max(...map.rows.map((text) => text.length));
  const cells = Object.fromEntries(Object.keys(kUses).map((sign) => [sign, '']));
  map.rows.forEach((text, y) => [...text].forEach((sign, x) => { cells[sign] += `M${x} ${y}h.85v.85h-.85z`; }));
  const used = Object.keys(kUses).filter((sign) => cells[sign]);
  const label = `${blocks} blocks of ${blockSize} bytes: ${data} with data, ${blankWritten} blank and written, ${blankSkipped} blank and skipped`;
  return h('figure', {},
    h('svg', { class: 'map', viewBox: `0 0 ${columns} ${map.rows.length}`, role: 'img', 'aria-label': label },
      used.map((sign) => h('path', { d: cells[sign], class: kUses[sign][0] }))),
    h('figcaption', {}, h('small', {}, label),
      h('ul', { class: 'legend' }, used.map((sign) => h('li', {}, h('span', { class: 'key ' + kUses[sign][0] }), kUses[sign][1])))));
}

export function showJournal(path, history) {
  if (!path) return h('p', { class: 'quiet' }, 'No journal is kept. To keep one, start the page with --journal FILE.');
  if (!history?.updates) return h('p', { class: 'quiet' }, `${baseName(path)} has no update yet.`);
  const { devices, passedFirst, updates, succeeded, failed, stopped, durations, failures } = history;
  const groups = (name, all) => table([name, 'Updates', 'Succeeded', 'Mean'], all.map((group) => [baseName(group.name),
    group.updates, percent(group.succeeded, group.updates), group.meanSeconds == null ? '' : seconds(group.meanSeconds)]));
  return h('div', { class: 'card' },
    h('div', { class: 'figures' },
      h('p', {}, h('strong', {}, percent(passedFirst, devices)), `of ${devices} devices passed at the first update`, yieldBar(passedFirst, devices)),
      h('p', {}, h('strong', {}, String(updates)), `updates: ${succeeded} succeeded, ${failed} failed, ${stopped} stopped`),
      durations && h('p', {}, h('strong', {}, seconds(durations.median)), `at the median, ${seconds(durations.least)} to ${seconds(durations.most)}`),
      durations && histogram(durations.histogram)),
    h('div', { class: 'figures tables' }, groups('Port', history.ports), groups('File', history.files),
      table(['Failure', 'Updates'], Object.entries(failures))));
}

const yieldBar = (part, whole) => h('svg', { class: 'bars', viewBox: '0 0 100 4', preserveAspectRatio: 'none', 'aria-hidden': 'true' },
  h('rect', { class: 'rest', width: 100, height: 4 }), h('rect', { class: 'busy', width: 100 * part / (whole || 1), height: 4 }));

function histogram(bars) {
  const most = Math.max(...bars.map(({ count }) => count), 1);
  const label = 'Durations: ' + bars.filter(({ count }) => count)
    .map(({ count, from, to }) => `${count} of ${to == null ? `over ${from}` : `${from} to ${to}`} s`).join(', ');
  const text = (i, y, content) => h('text', { x: i * 30 + 15, y, 'text-anchor': 'middle', class: 'plain' }, content);
  return h('svg', { class: 'bars', viewBox: `0 0 ${bars.length * 30} 70`, role: 'img', 'aria-label': label }, bars.map(({ count, from, to }, i) => {
    const height = 44 * count / most;
    return [h('rect', { class: 'busy', x: i * 30 + 3, y: 56 - height, width: 24, height: height + 1, rx: 1.5 }),
      count > 0 && [text(i, 52 - height, String(count)), text(i, 67, to == null ? `>${from}` : `<${to}`)]];
  }));
}
