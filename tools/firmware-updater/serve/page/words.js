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
  'bootloader-as-found': ['In its bootloader', '▲', 'warn'],
  'bootloader-flash-intact': ['In its bootloader', '▲', 'warn'],
  'bootloader-flash-erased': ['In its bootloader', '▲', 'bad'],
  unknown: ['State unknown', '?', 'bad'],
};
export const look = (state) => kLooks[state] ?? kLooks.unknown;
export const seconds = (time) => `${time.toFixed(time < 10 ? 1 : 0)}\u00a0s`;
export const clock = (milliseconds) => new Date(milliseconds).toLocaleTimeString();
export const kVerdicts = {
  passed: '✓ whole, by its checksum',
  failed: '✕ damaged: the checksums differ',
  'not-supported': 'the bootloader cannot check it',
  'no-answer': 'the bootloader did not answer',
  'no-bootloader': 'the bootloader did not start',
  'not-asked': 'not checked',
};
