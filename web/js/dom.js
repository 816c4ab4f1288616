// Small helpers for building the page's HTML and SVG.

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

export function clear(node) {
  node.replaceChildren();
}

// Calls `draw` now and whenever the element's width changes.
export function drawOnResize(element, draw) {
  let width = -1;
  const observer = new ResizeObserver(() => {
    if (element.clientWidth === width) return;
    width = element.clientWidth;
    draw(width);
  });
  observer.observe(element);
  return observer;
}
