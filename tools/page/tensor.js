// A tensor: its numbers, its histogram, its planes as a picture.
'use strict';

const NOT_FINITE = 255;
const LAST_SHADE = 254;

function mix(from, to, share) {
  return from.map((value, k) => Math.round(value + (to[k] - value) * share));
}

function alongStops(stops, share) {
  const place = Math.min(Math.max(share, 0), 1) * (stops.length - 1);
  const stop = Math.min(Math.floor(place), stops.length - 2);
  return mix(stops[stop], stops[stop + 1], place - stop);
}

const SEQUENTIAL = [[44, 26, 92], [52, 84, 150], [38, 138, 141], [92, 194, 104], [250, 228, 60]];

// Colours of the shades. Where the values have both signs, zero is neutral and both sides have the same scale.
function paletteOf(picture) {
  const signs = picture.low < 0 && picture.high > 0;
  const neutral = matchMedia('(prefers-color-scheme: dark)').matches ? [38, 40, 46] : [246, 246, 246];
  const diverging = [[24, 90, 190], [120, 170, 235], neutral, [240, 140, 110], [185, 30, 40]];
  const reach = Math.max(Math.abs(picture.low), Math.abs(picture.high));
  const palette = [];
  for (let shade = 0; shade <= LAST_SHADE; ++shade) {
    const value = picture.low + (picture.high - picture.low) * shade / LAST_SHADE;
    palette.push(signs ? alongStops(diverging, (value / reach + 1) / 2) : alongStops(SEQUENTIAL, shade / LAST_SHADE));
  }
  palette[NOT_FINITE] = [255, 0, 255];
  return palette;
}

// Paints a picture, planes a cell apart, one pixel per cell; CSS makes it as large as it should be.
function pictureCanvas(picture, largest) {
  const gap = picture.shown > 1 && picture.width * picture.height > 1 ? 1 : 0;
  const rows = Math.ceil(picture.shown / picture.columns);
  const canvas = make('canvas', {
    class: 'picture',
    width: picture.columns * (picture.width + gap) - gap,
    height: rows * (picture.height + gap) - gap,
    role: 'img',
    'aria-label': pictureText(picture),
    title: pictureText(picture),
  });
  const cells = atob(picture.cells);
  const palette = paletteOf(picture);
  const context = canvas.getContext('2d');
  const image = context.createImageData(canvas.width, canvas.height);
  for (let i = 0; i < cells.length; ++i) {
    const plane = Math.floor(i / (picture.width * picture.height));
    const inPlane = i % (picture.width * picture.height);
    const x = (plane % picture.columns) * (picture.width + gap) + inPlane % picture.width;
    const y = Math.floor(plane / picture.columns) * (picture.height + gap) + Math.floor(inPlane / picture.width);
    image.data.set([...palette[cells.charCodeAt(i)], 255], (y * canvas.width + x) * 4);
  }
  context.putImageData(image, 0, 0);
  sizePicture(canvas, picture, largest);
  return canvas;
}

// Cells as wide and high as what they stand for, within reason.
function sizePicture(canvas, picture, largest) {
  const cellWidth = picture.planeWidth / picture.width;
  const cellHeight = picture.planeHeight / picture.height;
  const aspect = Math.min(Math.max(cellWidth / cellHeight, 0.25), 4);
  const width = canvas.width * Math.max(aspect, 1);
  const height = canvas.height * Math.max(1 / aspect, 1);
  const scale = Math.min(largest / width, largest / height, 24);
  canvas.style.width = Math.max(Math.round(width * scale), 3) + 'px';
  canvas.style.height = Math.max(Math.round(height * scale), largest > 100 ? 10 : 3) + 'px';
}

function pictureText(picture) {
  const size = picture.planeHeight + ' × ' + picture.planeWidth;
  const few = picture.shown < picture.planes ? 'the first ' + picture.shown + ' of ' : '';
  const planes = picture.planes > 1 ? few + countText(picture.planes, 'plane') + ' of ' + size : size;
  const mean = picture.height < picture.planeHeight || picture.width < picture.planeWidth ? ', averaged' : '';
  return planes + mean + ', ' + numberText(picture.low) + ' to ' + numberText(picture.high);
}

function summaryFacts(summary) {
  const facts = [
    ['elements', summary.count.toLocaleString('en')], ['minimum', numberText(summary.min)],
    ['maximum', numberText(summary.max)], ['mean', numberText(summary.mean)],
    ['zeros', share(summary.zeros, summary.count)], ['NaN', share(summary.nan, summary.count)],
    ['infinite', share(summary.infinite, summary.count)],
  ];
  return make('dl', {class: 'facts'}, facts.map(([name, value]) => make(
      'div', {class: (name === 'NaN' || name === 'infinite') && value !== '0' ? 'alarm' : ''},
      make('dt', {}, name), make('dd', {}, value || '–'))));
}

function share(part, whole) {
  return part === 0 ? '0' : part.toLocaleString('en') + ' (' + numberText(100 * part / whole) + ' %)';
}

// Numbers, histogram and picture under a title. `plots` keeps what must go when the panel goes.
function tensorFigure(title, summary, plots, remark = '') {
  const figure = make('figure', {class: 'tensor'}, make('figcaption', {}, make('strong', {}, title), ' ', remark));
  figure.append(summaryFacts(summary));
  const drawings = make('div', {class: 'drawings'});
  if (summary.picture) {
    drawings.append(make('div', {}, pictureCanvas(summary.picture, 220),
                         make('p', {class: 'note'}, pictureText(summary.picture))));
  }
  if (summary.histogram) {
    const place = make('div', {class: 'histogram'});
    drawings.append(place);
    plots.later(() => histogramPlot(place, summary.histogram));
  }
  figure.append(drawings);
  return figure;
}
