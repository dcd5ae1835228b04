// Elements from plain calls, and the least change from one tree to the next, so that focus, selection and
// what the user has opened stay. Texts only ever become text nodes.
const kSvg = new Set(['svg', 'path', 'rect', 'text']);

export function h(tag, attributes, ...children) {
  const element = kSvg.has(tag) ? document.createElementNS('http://www.w3.org/2000/svg', tag) : document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (value !== undefined && value !== false) element.setAttribute(name, value === true ? '' : value);
  }
  element.append(...children.flat(Infinity).filter((child) => child != null && child !== false && child !== ''));
  return element;
}

export const note = (colour, ...texts) => h('div', { class: 'note ' + colour }, texts.map((text) => h('p', {}, text)));
export const facts = (all) => h('dl', {}, Object.entries(all).map(([label, text]) =>
  text != null && text !== '' && [h('dt', {}, label), h('dd', {}, text)]));
export const table = (heads, lines) => lines.length > 0 && h('div', { class: 'scroll', tabindex: 0 }, h('table', {},
  h('thead', {}, h('tr', {}, heads.map((text) => h('th', { scope: 'col' }, text)))),
  h('tbody', {}, lines.map((cells) => h('tr', {}, cells.map((text) => h('td', {}, String(text))))))));

function morph(old, fresh) {
  if (old.nodeName !== fresh.nodeName || old.id !== fresh.id) {
    old.replaceWith(fresh);
  } else if (old.nodeType === Node.TEXT_NODE) {
    if (old.data !== fresh.data) old.data = fresh.data;
  } else {
    for (const { name } of [...old.attributes]) {
      if (!fresh.hasAttribute(name) && name !== 'open') old.removeAttribute(name);
    }
    for (const { name, value } of fresh.attributes) {
      if (old.getAttribute(name) !== value) old.setAttribute(name, value);
    }
    morphChildren(old, [...fresh.childNodes]);
  }
}

export function morphChildren(old, children) {
  children.forEach((child, i) => {
    const same = child.id && [...old.children].find((element) => element.id === child.id);
    if (same && old.childNodes[i] !== same) old.insertBefore(same, old.childNodes[i]);
    if (old.childNodes[i]) morph(old.childNodes[i], child);
    else old.append(child);
  });
  while (old.childNodes.length > children.length) old.lastChild.remove();
}
