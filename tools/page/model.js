// What the tool knows of the model and the run, with all layers of all segments in one row.
'use strict';

const report = JSON.parse(document.getElementById('data').textContent);
const model = report.model;
const layers = [];        // {number, table, index, name, json, tensors, constants, time}
const layerNumbers = [];  // by table and index

const MemoryKind = {lastOfRequest: 1};

function layerAt(table, index) {
  return layers[layerNumbers[table]?.[index]];
}

function layerLabel(layer) {
  return (model.tables.length > 1 ? model.tables[layer.table].segmentId + ':' : '') + layer.index + ' ' + layer.name;
}

// Where a tensor lies, in words.
function placeText(tensor, specs) {
  if (tensor.memKind <= MemoryKind.lastOfRequest) {
    return specs[tensor.memIndex]?.name ?? 'request tensor ' + tensor.memIndex;
  }
  return 'scratch ' + tensor.memIndex + ' to ' + (tensor.memIndex + tensor.size);
}

function constantOf(offline) {
  const offset = offline.dataOffset;
  return report.constants.find(
      (constant) => offline.constant !== undefined ? constant.name === offline.constant : constant.offset === offset);
}

function searchText(layer) {
  const words = [layer.index, layer.name, model.tables[layer.table].name, 'id ' + layer.json.layerId];
  (layer.json.inputs ?? []).forEach((tensor) => words.push(placeText(tensor, model.inputs), shapeText(tensor.shape)));
  (layer.json.outputs ?? []).forEach((tensor) => words.push(placeText(tensor, model.outputs), shapeText(tensor.shape)));
  layer.constants.forEach((constant) => words.push(constant.name));
  return words.join(' ').toLowerCase();
}

function readModel() {
  model.tables.forEach((table, t) => {
    layerNumbers.push([]);
    table.layers.forEach((json, index) => {
      layerNumbers[t].push(layers.length);
      const constants = (json.offline ?? []).map(constantOf).filter((constant) => constant !== undefined);
      const layer = {number: layers.length, table: t, index, name: json.shortName, json, tensors: [], constants};
      layer.text = searchText(layer);
      layers.push(layer);
    });
  });
  for (const tensor of report.run?.tensors ?? []) {
    layerAt(tensor.table, tensor.layer)?.tensors.push(tensor);
  }
  for (const time of report.times?.layers ?? []) {
    layerAt(time.table, time.layer).time = time;
  }
  report.constants.forEach((constant) => {
    constant.users = layers.filter((layer) => layer.constants.includes(constant));
  });
}

// undefined where nothing was compared.
function differs(layer) {
  const compared = layer.tensors.filter((tensor) => tensor.difference !== undefined);
  return compared.length === 0 ? undefined : compared.some((tensor) => tensor.difference.elements > 0);
}

function firstDifferent() {
  const tensor = report.run?.tensors.find((candidate) => (candidate.difference?.elements ?? 0) > 0);
  return tensor === undefined ? undefined : layerAt(tensor.table, tensor.layer);
}

readModel();
