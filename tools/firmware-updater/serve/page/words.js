// How states look: word, symbol and colour; for a command also the word on its button.
const kLooks = {
  update: ['Updating', '↻', 'busy', 'Update'],
  recover: ['Recovering', '↻', 'busy', 'Recover'],
  verify: ['Verifying', '↻', 'busy', 'Verify'],
  info: ['Asking', '↻', 'busy', 'Ask'],
  stopping: ['Stopping', '↻', 'busy'],
  gone: ['Unplugged', '⊘', 'plain'],
  unusable: ['Cannot be used', '✕', 'bad'],
  'not-asked': ['Not asked', '○', 'plain'],
  application: ['Ready', '●', 'good'],
  master: ['Ready, master', '●', 'good'],
  bootloader: ['In its bootloader', '▲', 'warn'],
  silent: ['Does not respond', '?', 'bad'],
  untouched: ['Not changed', '●', 'plain'],
  'old-application-runs': ['Runs its old firmware', '●', 'plain'],
  'updated-and-verified': ['Updated', '✓', 'good'],
  'updated-not-verified': ['Updated, not verified', '✓', 'warn'],
  'runs-incomplete': ['Updated, incomplete', '▲', 'warn'],
  'bootloader-flash-erased': ['In its bootloader', '▲', 'bad'],
  unknown: ['State unknown', '?', 'bad'],
};
export const look = (state) => kLooks[state] ?? (state.startsWith('bootloader') ? kLooks.bootloader : kLooks.unknown);
export const seconds = (time) => `${time.toFixed(time < 10 ? 1 : 0)}\u00a0s`;
export const percent = (part, whole) => whole ? `${Math.round(100 * part / whole)} %` : 'none yet';
export const hex = (number, digits = 4) => number == null ? null : '0x' + number.toString(16).toUpperCase().padStart(digits, '0');
// Without the folder, and the number that the bench puts in front.
export const baseName = (path) => path.split(/[/\\]/).pop().replace(/^\d+-/, '');
export const verdict = (name) => ({ passed: '✓ whole, by its checksum', failed: '✕ damaged: the checksums differ' })[name] ??
  (name && `not checked: ${name.replaceAll('-', ' ')}`);
