// Small helpers for building the page's HTML and SVG, keeping keyboard
// focus where the user is, and telling screen readers what happened.

const SVG_NS = 'http://www.w3.org/2000/svg';

export const byId = (id) => document.getElementById(id);

function build(node, attrs, children) {
  for (const [name, value] of Object.entries(attrs)) {
    if (value === false || value === null || value === undefined) continue;
    if (name.startsWith('on')) node.addEventListener(name.slice(2), value);
    else node.setAttribute(name, value === true ? '' : String(value));
  }
  for (const child of children.flat()) {
    if (child === null || child === undefined || child === false) continue;
    node.append(child instanceof Node ? child : document.createTextNode(String(child)));
  }
  return node;
}

export function el(tag, attrs = {}, ...children) {
  return build(document.createElement(tag), attrs, children);
}

export function svg(tag, attrs = {}, ...children) {
  return build(document.createElementNS(SVG_NS, tag), attrs, children);
}

// Calls `draw` now and whenever the element's width changes.
export function drawOnResize(element, draw) {
  let width = -1;
  new ResizeObserver(() => {
    if (element.clientWidth === width) return;
    width = element.clientWidth;
    draw(width);
  }).observe(element);
}

// Says `text` to screen readers through the page's one polite live region.
// The region is emptied first, so that the same words said twice are read
// twice.
export function announce(text) {
  const region = byId('announcer');
  region.textContent = '';
  setTimeout(() => {
    region.textContent = text;
  }, 50);
}

// Hides or shows `element`; when it held the focus, `next` gets it, so that
// the keyboard never falls back to the top of the page.
export function setShown(element, shown, next = null) {
  if (!shown && next && element.contains(document.activeElement)) next.focus();
  element.hidden = !shown;
}

export function isFocusLost() {
  return document.activeElement === null || document.activeElement === document.body;
}
