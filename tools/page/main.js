// Puts the page together: views, selection, search and keys.
'use strict';

const VIEWS = [
  {id: 'model', title: 'Model', make: modelPanel},
  {id: 'layer', title: 'Layer', make: layerPanel},
  {id: 'time', title: 'Time', make: timePanel},
  {id: 'scratch', title: 'Scratch', make: scratchPanel},
  {id: 'tensors', title: 'Tensors', make: tensorsPanel},
  {id: 'constants', title: 'Constants', make: constantsPanel},
  {id: 'comparison', title: 'Comparison', make: comparisonPanel},
];
const VIEWS_OF_A_LAYER = ['layer', 'scratch'];  // the others do not change with it but for a row
const KEYS = [
  ['/', 'search; Enter goes to the next one found', () => query.focus()],
  ['j', 'next layer; also the arrow keys', () => step(1)],
  ['k', 'layer before', () => step(-1)],
  ['f', 'all of the graph', () => graph.fit()],
  ['+', 'larger', () => graph.zoom(1.3)],
  ['-', 'smaller', () => graph.zoom(1 / 1.3)],
  ['d', 'first layer that differs', () => firstDifferent() && selectLayer(firstDifferent(), 'layer')],
  ['s', 'slowest layer', () => report.times && selectLayer(slowest(), 'layer')],
  ['?', 'these keys', () => help.showModal()],
];
const MOST_RESULTS = 100;

const query = document.getElementById('query');
const results = document.getElementById('results');
const help = document.getElementById('help');
const panel = document.getElementById('panel');
const plots = new Plots();
let view = VIEWS[0];
let selected;
let found = [];
let candidate = -1;  // of those found

function refreshPanel() {
  const top = panel.scrollTop;
  plots.clear();
  panel.replaceChildren(...view.make(plots, selected));
  plots.showAll();
  markRows();
  panel.scrollTop = top;
}

function markRows() {
  panel.querySelectorAll('tr.selected').forEach((row) => row.classList.remove('selected'));
  panel.querySelectorAll(`tr[data-layer="${selected?.number}"]`).forEach((row) => row.classList.add('selected'));
}

function showView(next) {
  const same = view === next;
  view = next;
  for (const button of document.querySelectorAll('#tabs button')) {
    const chosen = button.dataset.view === view.id;
    button.setAttribute('aria-selected', chosen);
    button.tabIndex = chosen ? 0 : -1;
  }
  panel.setAttribute('aria-labelledby', 'tab-' + view.id);
  refreshPanel();
  panel.scrollTop = same ? panel.scrollTop : 0;
  remember();
}

// Shows a layer in the graph and in the view, or in another view.
function selectLayer(layer, viewId = view.id === 'model' ? 'layer' : view.id) {
  selected = layer;
  scratchTable = layer.table;
  graph.select(layer);
  if (viewId !== view.id || VIEWS_OF_A_LAYER.includes(viewId)) {
    showView(VIEWS.find((candidateView) => candidateView.id === viewId));
    panel.scrollTop = viewId === 'layer' ? 0 : panel.scrollTop;
  } else {
    markRows();
    remember();
  }
}

function step(by) {
  const number = selected === undefined ? 0 : selected.number + by;
  if (layers[number] !== undefined) {
    selectLayer(layers[number]);
  }
}

function slowest() {
  return layers.reduce((most, layer) => layer.time.median > most.time.median ? layer : most);
}

// The address tells the view and the layer, so that both can be sent to somebody.
function remember() {
  const layer = selected === undefined ? '' : `&layer=${selected.table}.${selected.index}`;
  history.replaceState(null, '', `#view=${view.id}${layer}`);
}

function recall() {
  const words = new URLSearchParams(location.hash.slice(1));
  const [table, index] = (words.get('layer') ?? '').split('.').map(Number);
  const layer = layerAt(table, index);
  const wanted = VIEWS.find((candidateView) => candidateView.id === words.get('view')) ?? VIEWS[0];
  layer === undefined ? showView(wanted) : selectLayer(layer, wanted.id);
}

function search() {
  const words = query.value.toLowerCase().split(/\s+/).filter((word) => word !== '');
  found = words.length === 0 ? [] : layers.filter((layer) => words.every((word) => layer.text.includes(word)));
  candidate = -1;
  graph.highlight(new Set(found));
  document.getElementById('found').textContent = words.length === 0 ? '' : `${found.length} of ${layers.length}`;
  results.replaceChildren(...found.slice(0, MOST_RESULTS).map((layer, i) => make('li',
      {role: 'option', id: 'result-' + i, onmousedown: (event) => {
        event.preventDefault();
        choose(i);
      }}, layerLabel(layer), make('small', {}, layer.json.outputs?.length ? shapeText(layer.json.outputs[0].shape) : ''))));
  showResults(found.length > 0);
}

function showResults(shown) {
  results.hidden = !shown;
  query.setAttribute('aria-expanded', shown);
}

function choose(number) {
  candidate = (number + found.length) % found.length;
  [...results.children].forEach((item, i) => item.setAttribute('aria-selected', i === candidate));
  results.children[candidate]?.scrollIntoView({block: 'nearest'});
  query.setAttribute('aria-activedescendant', 'result-' + candidate);
  selectLayer(found[candidate]);
}

function searchKey(event) {
  const steps = {Enter: event.shiftKey ? -1 : 1, ArrowDown: 1, ArrowUp: -1};
  if (event.key in steps && found.length > 0) {
    choose(candidate < 0 && steps[event.key] < 0 ? -1 : candidate + steps[event.key]);
    event.preventDefault();
  } else if (event.key === 'Escape') {
    query.value = '';
    search();
    query.blur();
  }
  event.stopPropagation();
}

function key(event) {
  if (event.ctrlKey || event.metaKey || event.altKey || help.open || event.target.closest('input, select')) {
    return;
  }
  const inTabs = event.target.closest('#tabs');
  const number = Number(event.key) - 1;
  const entry = KEYS.find(([name]) => name === event.key) ?? KEYS.find(([name]) => name === {'=': '+'}[event.key]);
  if (entry) {
    entry[2]();
  } else if (VIEWS[number] !== undefined) {
    showView(VIEWS[number]);
  } else if (inTabs && (event.key === 'ArrowRight' || event.key === 'ArrowLeft')) {
    const next = VIEWS.indexOf(view) + (event.key === 'ArrowRight' ? 1 : VIEWS.length - 1);
    showView(VIEWS[next % VIEWS.length]);
    document.getElementById('tab-' + view.id).focus();
  } else if ((event.key === 'ArrowDown' || event.key === 'ArrowUp') && !event.target.closest('#panel')) {
    step(event.key === 'ArrowDown' ? 1 : -1);
  } else {
    return;
  }
  event.preventDefault();
}

function legend() {
  const texts = [];
  if (report.times) {
    texts.push('blue line: time');
  }
  if (report.comparison) {
    texts.push('red: differs, green: the same');
  }
  texts.push('scroll to move, ctrl and scroll to zoom');
  return texts.join(' · ');
}

function start() {
  const items = report.run ? `, ${countText(report.run.items, 'item')} run` : '';
  document.title = `${modelName()} – opkit report`;
  document.getElementById('title').textContent = modelName();
  document.getElementById('subtitle').textContent =
      `${countText(layers.length, 'layer')} in ${countText(model.tables.length, 'table')}, ` +
      `${bytesText(model.bufferSize)}, CRC-32 ${report.crc32}${items}`;
  document.getElementById('legend').textContent = legend();
  document.getElementById('tabs').append(...VIEWS.map((entry, i) => make('button', {
    type: 'button', role: 'tab', id: 'tab-' + entry.id, 'data-view': entry.id, title: `${entry.title} ( ${i + 1} )`,
    'aria-controls': 'panel', onclick: () => showView(entry),
  }, entry.title)));
  document.getElementById('keys').append(...[...KEYS, ['1 to ' + VIEWS.length, 'the views']].flatMap(
      ([name, text]) => [make('dt', {}, make('kbd', {}, name)), make('dd', {}, text)]));
  document.getElementById('zoom-in').addEventListener('click', () => graph.zoom(1.3));
  document.getElementById('zoom-out').addEventListener('click', () => graph.zoom(1 / 1.3));
  document.getElementById('zoom-fit').addEventListener('click', () => graph.fit());
  document.getElementById('help-button').addEventListener('click', () => help.showModal());
  query.addEventListener('input', search);
  query.addEventListener('keydown', searchKey);
  query.addEventListener('blur', () => showResults(false));
  query.addEventListener('focus', () => showResults(found.length > 0));
  document.addEventListener('keydown', key);
  window.addEventListener('hashchange', recall);
  matchMedia('(prefers-color-scheme: dark)').addEventListener('change', refreshPanel);
  recall();
}

const graph = new Graph(document.getElementById('graph'), (layer) => selectLayer(layer));
start();
