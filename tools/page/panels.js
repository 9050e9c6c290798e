// The views beside the graph. Each makes its elements from the report; `plots` draws once they are in the page.
'use strict';

function hint(text, command) {
  return make('p', {class: 'hint'}, text + ' ', make('code', {}, command));
}

function modelName() {
  return report.file.replace(/\.json$/, '');
}

// Rows of cells under titles; a number's title begins with '#'. `onChoose` makes a row lead somewhere, `layer` shows
// when that is selected.
function dataTable(titles, rows) {
  const numeric = titles.map((title) => title.startsWith('#'));
  const cellClass = (k) => numeric[k] ? 'number' : undefined;
  const head = make('tr', {}, titles.map((title, k) => make('th', {class: cellClass(k)}, title.replace('#', ''))));
  return make('table', {}, make('thead', {}, head), make('tbody', {}, rows.map((row) => make(
      'tr', {class: [row.onChoose ? 'choice' : '', row.alarm ? 'alarm' : ''].join(' '),
             'data-layer': row.layer?.number,
             onclick: () => row.onChoose?.()},
      row.cells.map((cell, k) => make('td', {class: cell.bar === undefined ? cellClass(k) : 'bars'},
          cell.bar === undefined ? cell : make('span', {class: 'bar', style: `width: ${100 * cell.bar}%`})))))));
}

// Pictures of long tables are painted when they come into sight.
function thumbnail(summary) {
  const place = make('span', {class: 'thumbnail'});
  if (summary?.picture) {
    new IntersectionObserver((entries, observer) => {
      if (entries.some((entry) => entry.isIntersecting)) {
        observer.disconnect();
        place.replaceChildren(pictureCanvas(summary.picture, 40));
      }
    }).observe(place);
  }
  return place;
}

function modelPanel(plots) {
  const check = report.check;
  const findings = [...check.refusals.map((text) => make('li', {class: 'bad'}, text)),
                    ...check.conditions.map((text) => make('li', {}, 'if ' + text))];
  const facts = [
    ['model buffer', `${bytesText(model.bufferSize)}, CRC-32 ${report.crc32}`],
    ['scratch', `${bytesText(model.scratchSize)} for up to ${countText(model.maxBatch, 'batch item')}`],
    ['layers', `${layers.length} in ${countText(model.tables.length, 'table')}`],
    ['constants', `${report.constants.length}, ${bytesText(report.constants.reduce((sum, c) => sum + c.bytes, 0))}`],
    ['opkit check', check.refusals.length ? 'refused' : check.conditions.length ? 'accepted under conditions' : 'accepted'],
    ['opkit', report.opkit],
  ];
  if (report.run) {
    const run = report.run;
    facts.push(['run', `${countText(run.items, 'item')} in ${countText(run.requests, 'request')}`]);
  }
  const specs = (title, list, summaries) => list.length === 0 ? [] : [
    make('h3', {}, title),
    ...list.map((spec, i) => summaries ? tensorFigure(spec.name, summaries[i], plots, shapeText(spec.shape))
                                       : make('p', {class: 'note'}, `${spec.name} ${shapeText(spec.shape)}`))];
  return [
    make('h2', {}, modelName()),
    make('dl', {class: 'facts'},
         facts.map(([name, value]) => make('div', {}, make('dt', {}, name), make('dd', {}, value)))),
    findings.length ? make('ul', {}, findings) : '',
    report.run ? '' : hint('Tensors and their pictures come with inputs:',
                           `opkit report ${modelName()} --input NAME=FILE.npy ...`),
    report.run ? countsSwitch() : '',
    ...specs('Inputs', model.inputs, report.run?.inputs),
    ...specs('Outputs', model.outputs, report.run?.outputs),
    document.getElementById('licences').content.cloneNode(true),
  ];
}

// Whether histograms count by logarithms; a few zeros too many hide the rest otherwise.
function countsSwitch() {
  const root = document.documentElement;
  const box = make('input', {type: 'checkbox', onchange: () => {
    root.dataset.counts = box.checked ? 'log' : '';
    refreshPanel();
  }});
  box.checked = root.dataset.counts === 'log';
  return make('label', {class: 'note'}, box, ' histograms with a logarithmic scale');
}

function layerPanel(plots, layer) {
  if (layer === undefined) {
    return [make('p', {class: 'hint'}, 'Choose a layer in the graph, or search for one.')];
  }
  const json = layer.json;
  const rows = [];
  let online = 0;
  let offline = 0;
  const logical = Math.max(json.flags?.length ?? 0, json.inputs?.length ?? 0);
  for (let k = 0; k < logical; ++k) {
    if (json.flags?.[k] === '1') {
      const source = json.offline[offline++];
      const constant = constantOf(source);
      rows.push({cells: [`input ${k}`, 'constant ' + (constant?.name ?? 'at byte ' + source.dataOffset),
                         shapeText(constant?.shape ?? source.shape ?? [])]});
    } else if (online < (json.inputs?.length ?? 0)) {
      const tensor = json.inputs[online++];
      rows.push({cells: [`input ${k}`, placeText(tensor, model.inputs), shapeText(tensor.shape)]});
    }
  }
  (json.outputs ?? []).forEach((tensor, k) => rows.push(
      {cells: [`output ${k}`, placeText(tensor, model.outputs), shapeText(tensor.shape)]}));
  if (json.bufSize) {
    rows.push({cells: ['work space', `scratch ${json.bufOffset} to ${json.bufOffset + json.bufSize}`,
                       bytesText(json.bufSize)]});
  }
  const attributes = Object.entries(json.attributes ?? {}).map(
      ([name, value]) => make('div', {}, make('dt', {}, name),
                              make('dd', {}, Array.isArray(value) ? shapeText(value) : String(value))));
  return [
    make('h2', {}, layerLabel(layer)),
    make('p', {class: 'note'}, `segment ${model.tables[layer.table].segmentId} (${model.tables[layer.table].name}), ` +
         `id ${json.layerId}` + (layer.time ? `, ${timeText(layer.time.median)} in ${countText(layer.time.calls, 'call')}` : '')),
    dataTable(['', 'where', 'shape'], rows),
    attributes.length ? make('h3', {}, 'Attributes') : '',
    make('dl', {class: 'facts'}, attributes),
    report.run || layer.constants.length ? countsSwitch() : '',
    ...layer.tensors.flatMap((tensor) => outputFigure(tensor, plots)),
    report.run && layer.tensors.length === 0 ? make('p', {class: 'hint'}, 'The run did not come to an end of this layer.') : '',
    ...layer.constants.filter((constant) => constant.summary).map((constant) => tensorFigure(
        constant.name, constant.summary, plots, `constant ${shapeText(constant.shape)}, ${bytesText(constant.bytes)}`)),
  ];
}

function outputFigure(tensor, plots) {
  const figure = tensorFigure(`output ${tensor.output}`, tensor.summary, plots, shapeText(tensor.shape));
  if (tensor.difference) {
    figure.append(make('p', {class: tensor.difference.elements ? 'bad' : 'good'}, differenceText(tensor)));
  }
  return [figure];
}

function differenceText(tensor) {
  const difference = tensor.difference;
  return difference.elements === 0 ? `as in ${report.comparison.directory}`
      : `${share(difference.elements, tensor.summary.count)} differ, by up to ` +
        `${difference.ulps.toLocaleString('en')} ulps (${numberText(difference.distance)})` +
        (difference.nan ? ', some by NaN' : '') + `; first at ${difference.first}`;
}

function timePanel(plots) {
  if (!report.times) {
    return [hint('Times come with inputs and repeated runs:',
                 `opkit report ${modelName()} --input NAME=FILE.npy --repeat 20 ...`)];
  }
  const total = layers.reduce((sum, layer) => sum + layer.time.median, 0);
  const slowest = Math.max(...layers.map((layer) => layer.time.median));
  const ordered = [...layers].sort((a, b) => b.time.median - a.time.median);
  const place = make('div', {class: 'plot'});
  plots.later(() => timePlot(place, selectLayer));
  return [
    make('h2', {}, `${timeText(total)} in all layers`),
    make('p', {class: 'note'}, `Medians of ${countText(report.times.runs, 'run')} after ${report.times.warmup} to warm up; ` +
         'all items and passes of a run together, from a clock of 1 µs. Drag to zoom, double-click to go back.'),
    place,
    make('h3', {}, 'Slowest first'),
    dataTable(['layer', 'output', '#calls', '#shortest', '#median', '#share', ''], ordered.map((layer) => ({
      layer,
      onChoose: () => selectLayer(layer),
      cells: [layerLabel(layer), layer.json.outputs?.length ? shapeText(layer.json.outputs[0].shape) : '',
              layer.time.calls.toLocaleString('en'), timeText(layer.time.shortest), timeText(layer.time.median),
              (total ? 100 * layer.time.median / total : 0).toFixed(1) + ' %',
              {bar: slowest ? layer.time.median / slowest : 0}],
    }))),
  ];
}

let scratchTable = 0;

function scratchPanel(plots, selected) {
  const choice = make('select', {'aria-label': 'Segment', onchange: () => {
    scratchTable = Number(choice.value);
    refreshPanel();
  }}, model.tables.map((table, t) => make('option', {value: t}, `segment ${table.segmentId} (${table.name})`)));
  choice.value = scratchTable;
  const table = model.tables[scratchTable];
  const scratch = table.scratch;
  if (scratch.uses.length === 0) {
    return [model.tables.length > 1 ? choice : '', make('p', {class: 'hint'}, 'No layer here uses scratch.')];
  }
  const place = make('div', {class: 'plot'});
  plots.later(() => scratchPlot(place, scratchTable, selected, selectLayer));
  const name = (use) => scratch.uses[use].what;
  return [
    make('h2', {}, 'Scratch buffer'),
    model.tables.length > 1 ? choice : '',
    make('p', {}, `Peak: ${bytesText(scratch.peakBytes)} at layer ${scratch.peakLayer} ` +
         `${table.layers[scratch.peakLayer].shortName}, marked red. `,
         make('span', {class: scratch.reach > model.scratchSize ? 'bad' : ''},
              `${bytesText(scratch.reach)} of ${bytesText(model.scratchSize)} are reached.`)),
    make('p', {class: 'note'}, 'A box is a tensor, from the layer that writes it to the last one that reads it; grey is work ' +
         'space of a layer. The selected layer is marked blue. Drag to zoom, double-click to go back.'),
    place,
    scratch.overlaps.length ? make('h3', {}, 'Bytes that two share at the same time') : '',
    scratch.overlaps.length ? dataTable(['one', 'the other', 'bytes', ''], scratch.overlaps.map((overlap) => ({
      cells: [name(overlap.first), name(overlap.second), `${overlap.begin} to ${overlap.end}`,
              overlap.inPlace ? 'in place' : 'both in use'],
    }))) : '',
    scratch.moreOverlaps ? make('p', {class: 'note'}, `And more share bytes; ${scratch.overlaps.length} are shown.`) : '',
  ];
}

function tensorsPanel(plots) {
  if (!report.run) {
    return [hint('Tensors come with inputs:', `opkit report ${modelName()} --input NAME=FILE.npy ...`)];
  }
  return [
    make('h2', {}, countText(report.run.tensors.length, 'layer output')),
    make('p', {class: 'note'}, `Numbers of all ${countText(report.run.items, 'item')}; pictures are of the first item, ` +
         `with at most ${report.pictureSide} × ${report.pictureSide} cells, histograms of the first request.`),
    dataTable(['layer', '', 'shape', '#minimum', '#maximum', '#mean', '#zeros', '#NaN', '#infinite'],
              report.run.tensors.map((tensor) => {
      const layer = layerAt(tensor.table, tensor.layer);
      const summary = tensor.summary;
      return {
        layer,
        alarm: summary.nan > 0 || summary.infinite > 0,
        onChoose: () => selectLayer(layer, 'layer'),
        cells: [layerLabel(layer) + (tensor.output ? `, output ${tensor.output}` : ''), thumbnail(summary),
                shapeText(tensor.shape), numberText(summary.min), numberText(summary.max), numberText(summary.mean),
                numberText(100 * summary.zeros / summary.count) + ' %', String(summary.nan), String(summary.infinite)],
      };
    })),
  ];
}

function constantsPanel() {
  if (report.constants.length === 0) {
    return [make('p', {class: 'hint'}, 'The model has no constants.')];
  }
  const ordered = [...report.constants].sort((a, b) => b.bytes - a.bytes);
  const total = ordered.reduce((sum, constant) => sum + constant.bytes, 0);
  return [
    make('h2', {}, `${countText(ordered.length, 'constant')}, ${bytesText(total)}`),
    make('p', {class: 'note'}, 'Largest first; a row leads to the layer that uses it.'),
    dataTable(['name', '', 'shape', 'used by', '#size', ''], ordered.map((constant) => ({
      onChoose: constant.users.length ? () => selectLayer(constant.users[0], 'layer') : undefined,
      alarm: constant.summary?.nan > 0,
      cells: [constant.name, thumbnail(constant.summary), shapeText(constant.shape),
              constant.users.map(layerLabel).join(', ') || 'no layer', bytesText(constant.bytes),
              {bar: constant.bytes / Math.max(ordered[0].bytes, 1)}],
    }))),
  ];
}

function comparisonPanel(plots) {
  if (!report.comparison) {
    return [hint('Dump one run and compare another with it:',
                 `opkit run ${modelName()} --input NAME=FILE.npy --dump DIR; ` +
                 `opkit report ${modelName()} --input NAME=FILE.npy --compare DIR ...`)];
  }
  const compared = report.run.tensors.filter((tensor) => tensor.difference);
  const different = compared.filter((tensor) => tensor.difference.elements > 0);
  if (different.length === 0) {
    return [make('h2', {class: 'good'}, `All ${countText(compared.length, 'layer output')} are those in ${report.comparison.directory}`)];
  }
  const place = make('div', {class: 'plot'});
  plots.later(() => differencePlot(place, selectLayer));
  const first = firstDifferent();
  return [
    make('h2', {class: 'bad'}, `${different.length} of ${countText(compared.length, 'layer output')} differ from ${report.comparison.directory}`),
    make('p', {class: 'lines'}, report.comparison.first),
    make('p', {}, make('button', {type: 'button', onclick: () => selectLayer(first, 'layer')},
                       `Go to the first: ${layerLabel(first)}`)),
    place,
    make('h3', {}, 'How it spreads'),
    dataTable(['layer', '#elements', '#ulps', '#distance', 'first at'], compared.map((tensor) => {
      const layer = layerAt(tensor.table, tensor.layer);
      return {
        layer,
        alarm: tensor.difference.elements > 0,
        onChoose: () => selectLayer(layer, 'layer'),
        cells: [layerLabel(layer), share(tensor.difference.elements, tensor.summary.count),
                tensor.difference.ulps.toLocaleString('en'), numberText(tensor.difference.distance),
                tensor.difference.first],
      };
    })),
  ];
}
