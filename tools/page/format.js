// Elements, numbers and shapes as text.
'use strict';

// An element with attributes, listeners ("onclick") and children; what is no node becomes text, never markup.
function make(tag, attributes = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (name.startsWith('on')) {
      element.addEventListener(name.slice(2), value);
    } else if (value !== false && value !== undefined) {
      element.setAttribute(name, value === true ? '' : value);
    }
  }
  element.append(...children.flat());
  return element;
}

function makeSvg(tag, attributes = {}, ...children) {
  const element = document.createElementNS('http://www.w3.org/2000/svg', tag);
  for (const [name, value] of Object.entries(attributes)) {
    element.setAttribute(name, value);
  }
  element.append(...children);
  return element;
}

function shapeText(shape) {
  return '[' + shape.join(', ') + ']';
}

function elementCount(shape) {
  return shape.reduce((product, dim) => product * dim, 1);
}

function bytesText(bytes) {
  if (bytes < 1024) {
    return bytes + ' B';
  }
  const unit = Math.min(Math.floor(Math.log2(bytes) / 10), 3);
  const value = bytes / 1024 ** unit;
  return (value >= 100 ? value.toFixed(0) : value.toFixed(1).replace(/\.0$/, '')) + ' ' + ['B', 'KiB', 'MiB', 'GiB'][unit];
}

// Four digits that count. JSON has no infinity: null stands for it.
function numberText(value) {
  if (value === null || value === undefined) {
    return value === null ? 'infinite' : '';
  }
  if (value === 0) {
    return '0';
  }
  const size = Math.abs(value);
  return size >= 1e6 || size < 1e-4 ? value.toExponential(2) : String(Number(value.toPrecision(4)));
}

function countText(count, word) {
  return count.toLocaleString('en') + ' ' + word + (count === 1 ? '' : 's');
}

function timeText(microseconds) {
  return microseconds >= 10000 ? (microseconds / 1000).toFixed(1) + ' ms' : numberText(microseconds) + ' µs';
}

// A colour of the style sheet, for what is painted.
function colour(name) {
  return getComputedStyle(document.documentElement).getPropertyValue('--' + name).trim();
}
