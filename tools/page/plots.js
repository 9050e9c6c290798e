// The plots, all by uPlot: times, the scratch buffer, histograms, differences.
'use strict';

const PLOT_HEIGHT = 260;

// Plots of the panel on show: made once it is in the page, as wide as their places, gone with it.
class Plots {
  constructor() {
    this.waiting = [];
    this.shown = [];
    this.resizing = new ResizeObserver(() => this.fit());
  }

  later(makePlot) {
    this.waiting.push(makePlot);
  }

  showAll() {
    this.shown = this.waiting.map((makePlot) => makePlot());
    this.waiting = [];
    this.shown.forEach((plot) => this.resizing.observe(plot.root.parentElement));
  }

  fit() {
    for (const plot of this.shown) {
      const width = plot.root.parentElement.clientWidth;
      if (width > 0 && width !== plot.width) {
        plot.setSize({width, height: plot.height});
      }
    }
  }

  clear() {
    this.resizing.disconnect();
    this.shown.forEach((plot) => plot.destroy());
    this.shown = [];
    this.waiting = [];
    hideTip();
  }
}

function axis(options) {
  return {stroke: colour('faint'), grid: {stroke: colour('grid'), width: 1}, ticks: {stroke: colour('grid'), width: 1},
          font: '12px system-ui, sans-serif', labelFont: '12px system-ui, sans-serif', labelSize: 20, ...options};
}

function showTip(text, event) {
  const tip = document.getElementById('tip');
  tip.textContent = text;
  tip.hidden = false;
  tip.style.left = Math.min(event.clientX + 14, innerWidth - tip.offsetWidth - 8) + 'px';
  tip.style.top = Math.min(event.clientY + 14, innerHeight - tip.offsetHeight - 8) + 'px';
}

function hideTip() {
  document.getElementById('tip').hidden = true;
}

// `textAt` gives what to say at a place, `onChoose` is told of clicks. A drag is a zoom, no click.
function pointAt(plot, textAt, onChoose) {
  let pressed = null;
  const placeOf = (event) => {
    const box = plot.over.getBoundingClientRect();
    return [plot.posToVal(event.clientX - box.left, 'x'), plot.posToVal(event.clientY - box.top, 'y')];
  };
  plot.over.addEventListener('mousemove', (event) => {
    const text = textAt(...placeOf(event));
    text ? showTip(text, event) : hideTip();
  });
  plot.over.addEventListener('mouseleave', hideTip);
  plot.over.addEventListener('mousedown', (event) => { pressed = [event.clientX, event.clientY]; });
  plot.over.addEventListener('mouseup', (event) => {
    if (pressed && Math.hypot(event.clientX - pressed[0], event.clientY - pressed[1]) < 4) {
      onChoose?.(...placeOf(event));
    }
  });
  return plot;
}

const unpadded = (plot, low, high) => [low, high];
const fromZero = (plot, low, high) => [0, high > 0 ? high * 1.05 : 1];

// One bar per layer.
function layerBars(place, values, textOf, options, onChoose) {
  const plot = new uPlot({
    width: Math.max(place.clientWidth, 100), height: PLOT_HEIGHT, legend: {show: false},
    cursor: {y: false, points: {show: false}, drag: {x: true, y: false}},
    scales: {x: {time: false, range: (u, low, high) => [Math.floor(low) - 0.5, Math.ceil(high) + 0.5]},
             y: {range: fromZero, ...options.scale}},
    axes: [axis({label: 'layer', incrs: [1, 2, 5, 10, 20, 50, 100, 200]}),
           axis({label: options.label, labelSize: 24, size: 60, ...options.axis})],
    series: [{}, {stroke: colour(options.colour ?? 'bar'), fill: colour(options.colour ?? 'bar'),
                  paths: uPlot.paths.bars({size: [0.8, 60]}), points: {show: false}}],
  }, [layers.map((layer) => layer.number), values], place);
  const layerNear = (x) => layers[Math.round(x)];
  return pointAt(plot, (x) => layerNear(x) && textOf(layerNear(x)), (x) => layerNear(x) && onChoose(layerNear(x)));
}

function timePlot(place, onChoose) {
  return layerBars(place, layers.map((layer) => layer.time.median),
                   (layer) => layerLabel(layer) + '\n' + timeText(layer.time.median), {label: 'median, µs'}, onChoose);
}

function differencePlot(place, onChoose) {
  const shareOf = (layer) => {
    const tensors = layer.tensors.filter((tensor) => tensor.difference);
    const whole = tensors.reduce((sum, tensor) => sum + tensor.summary.count, 0);
    return whole === 0 ? null : 100 * tensors.reduce((sum, tensor) => sum + tensor.difference.elements, 0) / whole;
  };
  return layerBars(place, layers.map(shareOf),
                   (layer) => layerLabel(layer) + '\n' + (shareOf(layer) === null ? 'not compared'
                                                          : numberText(shareOf(layer)) + ' % of the elements differ'),
                   {label: 'elements that differ, %', colour: 'bad'}, onChoose);
}

function histogramPlot(place, histogram) {
  const step = (histogram.end - histogram.begin) / histogram.bins.length || 1;
  const middles = histogram.bins.map((count, i) => histogram.begin + (i + 0.5) * step);
  const logarithmic = document.documentElement.dataset.counts === 'log';
  const plot = new uPlot({
    width: Math.max(place.clientWidth, 100), height: 190, legend: {show: false},
    cursor: {y: false, points: {show: false}, drag: {x: true, y: false}},
    scales: {x: {time: false, range: unpadded}, y: {range: fromZero, distr: logarithmic ? 4 : 1, asinh: 1}},
    axes: [axis({values: (u, values) => values.map(numberText)}),
           axis({size: 60, values: (u, values) => values.map((value) => value === null ? '' : numberText(value))})],
    series: [{}, {stroke: colour('bar'), fill: colour('bar'), paths: uPlot.paths.bars({size: [1, 100], gap: 1}),
                  points: {show: false}}],
  }, [middles, histogram.bins], place);
  return pointAt(plot, (x) => {
    const bin = Math.min(Math.max(Math.floor((x - histogram.begin) / step), 0), histogram.bins.length - 1);
    return `${numberText(histogram.begin + bin * step)} to ${numberText(histogram.begin + (bin + 1) * step)}: ` +
           countText(histogram.bins[bin], 'element');
  });
}

function useColour(use, number) {
  const dark = matchMedia('(prefers-color-scheme: dark)').matches;
  return use.what.startsWith('work') ? colour('idle') : `hsl(${number * 137.5 % 360} 55% ${dark ? 42 : 68}%)`;
}

// Bytes upwards, layers to the right: a tensor is a box from the layer that writes it to the last that reads it.
function scratchPlot(place, table, selected, onChoose) {
  const {scratch, layers: tableLayers} = model.tables[table];
  const reach = Math.max(scratch.reach, 1);
  const painted = scratch.uses.map(useColour);
  const paint = (u) => {
    const context = u.ctx;
    context.save();
    context.beginPath();
    context.rect(u.bbox.left, u.bbox.top, u.bbox.width, u.bbox.height);
    context.clip();
    context.font = `${12 * devicePixelRatio}px system-ui, sans-serif`;
    const x = (value) => u.valToPos(value, 'x', true);
    const y = (value) => u.valToPos(value, 'y', true);
    scratch.uses.forEach((use, number) => {
      const left = x(use.firstLayer - 0.5);
      const box = [left, y(use.end), x(use.lastLayer + 0.5) - left, y(use.begin) - y(use.end)];
      context.fillStyle = painted[number];
      context.globalAlpha = 0.85;
      context.fillRect(...box);
      context.globalAlpha = 1;
      context.strokeStyle = colour('ground');
      context.strokeRect(...box);
      labelUse(context, use, tableLayers, box);
    });
    markColumn(context, u, x, scratch.peakLayer, colour('bad'));
    if (selected !== undefined && selected.table === table) {
      markColumn(context, u, x, selected.index, colour('accent'));
    }
    context.restore();
  };
  const plot = new uPlot({
    width: Math.max(place.clientWidth, 100), height: 420, legend: {show: false},
    cursor: {points: {show: false}, drag: {x: true, y: true, uni: 40}},
    scales: {x: {time: false, range: unpadded}, y: {range: unpadded}},
    axes: [axis({label: 'layer', incrs: [1, 2, 5, 10, 20, 50]}),
           axis({label: 'scratch, bytes', labelSize: 24, size: 76, incrs: Array.from({length: 32}, (_, i) => 2 ** i),
                 values: (u, values) => values.map(bytesText)})],
    series: [{}, {paths: () => null, points: {show: false}}],
    hooks: {draw: [paint]},
  }, [[-0.5, tableLayers.length - 0.5], [0, reach]], place);
  const useAt = (x, y) => scratch.uses.findLast((use) => use.firstLayer <= x + 0.5 && x < use.lastLayer + 0.5 &&
                                                         use.begin <= y && y < use.end);
  return pointAt(plot, (x, y) => {
    const use = useAt(x, y);
    return use && `${use.what} (${tableLayers[use.firstLayer].shortName})\nbytes ${use.begin} to ${use.end}, ` +
                      `${bytesText(use.end - use.begin)}\nlayers ${use.firstLayer} to ${use.lastLayer}`;
  }, (x, y) => {
    const layer = layerAt(table, useAt(x, y)?.firstLayer ?? Math.round(x));
    layer && onChoose(layer);
  });
}

function labelUse(context, use, tableLayers, [left, top, width, height]) {
  const text = use.firstLayer + ' ' + tableLayers[use.firstLayer].shortName;
  if (context.measureText(text).width + 8 < width && height > 16 * devicePixelRatio) {
    context.fillStyle = colour('text');
    context.textAlign = 'center';
    context.textBaseline = 'middle';
    context.fillText(text, left + width / 2, top + height / 2);
  }
}

function markColumn(context, u, x, layer, stroke) {
  context.strokeStyle = stroke;
  context.lineWidth = 2 * devicePixelRatio;
  context.setLineDash([6 * devicePixelRatio, 4 * devicePixelRatio]);
  context.strokeRect(x(layer - 0.5), u.bbox.top + 1, x(layer + 0.5) - x(layer - 0.5), u.bbox.height - 2);
  context.setLineDash([]);
  context.lineWidth = 1;
}
