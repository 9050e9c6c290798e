// The graph of layers: placed by dagre segment by segment, drawn as SVG, moved and zoomed by the reader.
'use strict';

const NODE_HEIGHT = 46;
const END_HEIGHT = 30;
const SEGMENT_GAP = 60;
const FRAME = 24;
const SMALLEST_SCALE = 0.03;
const LARGEST_SCALE = 3;
const READABLE_SCALE = 0.45;

class Graph {
  constructor(svg, onSelect) {
    this.svg = svg;
    this.onSelect = onSelect;
    this.nodes = new Map();       // by key: {key, x, y, width, height, element}
    this.layerNodes = [];         // by layer number
    this.edgesOf = new Map();     // elements, by layer number
    this.view = {x: 0, y: 0, scale: 1};
    this.world = makeSvg('g');
    this.svg.append(makeSvg('defs', {}, makeSvg('marker',
        {id: 'arrow', viewBox: '0 0 8 8', refX: 7, refY: 4, markerWidth: 7, markerHeight: 7, orient: 'auto'},
        makeSvg('path', {d: 'M0 0 8 4 0 8z'}))), this.world);
    this.place();
    this.draw();
    this.listen();
    this.start();
  }

  // Request tensors stand in every segment that uses them.
  static keyOf(node, table) {
    return node[0] === 'layer' ? `layer ${node[1]} ${node[2]}` : `${node[0]} ${node[1]} ${table}`;
  }

  static tableOf(edge) {
    return edge.to[0] === 'layer' ? edge.to[1] : edge.from[1];
  }

  place() {
    this.edges = report.edges.filter((edge) => edge.from[0] !== 'constant').map((edge) => {
      const table = Graph.tableOf(edge);
      return {...edge, table, fromKey: Graph.keyOf(edge.from, table), toKey: Graph.keyOf(edge.to, table)};
    });
    this.segments = [];
    let left = 0;
    model.tables.forEach((table, t) => {
      const segment = this.placeSegment(t, left);
      this.segments.push(segment);
      left += segment.width + SEGMENT_GAP;
    });
    this.width = Math.max(left - SEGMENT_GAP, 1);
    this.height = Math.max(...this.segments.map((segment) => segment.height), 1);
  }

  placeSegment(t, left) {
    const graph = new dagre.graphlib.Graph({multigraph: true});
    graph.setGraph({rankdir: 'TB', nodesep: 24, ranksep: 34, marginx: FRAME, marginy: FRAME + 12});
    graph.setDefaultEdgeLabel(() => ({}));
    for (const layer of layers.filter((candidate) => candidate.table === t)) {
      const text = Graph.linesOf(layer);
      graph.setNode(`layer ${t} ${layer.index}`,
                    {layer, text, width: Graph.widthOf(text), height: NODE_HEIGHT});
    }
    const within = (edge) => edge.table === t && !edge.jump && !(edge.from[0] === 'layer' && edge.from[1] !== t);
    this.edges.filter(within).forEach((edge, i) => {
      for (const [end, key] of [[edge.from, edge.fromKey], [edge.to, edge.toKey]]) {
        if (end[0] !== 'layer' && !graph.hasNode(key)) {
          const spec = (end[0] === 'input' ? model.inputs : model.outputs)[end[1]];
          const text = [spec ? spec.name : 'request tensor ' + end[1], ''];
          graph.setNode(key, {end, spec, text, width: Graph.widthOf(text), height: END_HEIGHT});
        }
      }
      if (edge.fromKey !== edge.toKey) {
        graph.setEdge(edge.fromKey, edge.toKey, {edge}, String(i));
      }
    });
    dagre.layout(graph);
    for (const key of graph.nodes()) {
      const node = graph.node(key);
      this.nodes.set(key, {...node, key, x: node.x + left});
    }
    for (const id of graph.edges()) {
      const label = graph.edge(id);
      label.edge.points = label.points.map((point) => ({x: point.x + left, y: point.y}));
    }
    const size = graph.graph();
    return {left, width: Math.max(size.width || 0, 120), height: Math.max(size.height || 0, 60), table: model.tables[t]};
  }

  static linesOf(layer) {
    const outputs = layer.json.outputs ?? [];
    const more = outputs.length > 1 ? ' + ' + (outputs.length - 1) : '';
    return [layer.index + ' ' + layer.name, outputs.length ? shapeText(outputs[0].shape) + more : ''];
  }

  static widthOf([name, shape]) {
    return Math.max(name.length * 8 + 24, shape.length * 6.5 + 24, 90);
  }

  draw() {
    const slowest = Math.max(...layers.map((layer) => layer.time?.median ?? 0));
    for (const segment of this.segments) {
      this.world.append(makeSvg('g', {class: 'segment'},
          makeSvg('rect', {x: segment.left, y: 0, width: segment.width, height: segment.height, rx: 12}),
          makeSvg('text', {x: segment.left + 12, y: 20}, `segment ${segment.table.segmentId} (${segment.table.name})`)));
    }
    this.edges.forEach((edge) => this.drawEdge(edge));
    for (const node of this.nodes.values()) {
      this.drawNode(node, slowest);
    }
  }

  drawEdge(edge) {
    const from = this.nodes.get(edge.fromKey);
    const to = this.nodes.get(edge.toKey);
    if (!from || !to || from === to) {
      return;
    }
    const path = makeSvg('path', {
      class: 'edge' + (edge.jump ? ' jump' : '') + (edge.points ? '' : ' far-away'),
      d: edge.points ? Graph.smooth(edge.points) : Graph.arc(from, to),
      'marker-end': 'url(#arrow)',
    }, makeSvg('title', {}, edge.label));
    this.world.append(path);
    for (const end of [from, to]) {
      if (end.layer) {
        this.edgesOf.set(end.layer.number, [...this.edgesOf.get(end.layer.number) ?? [], path]);
      }
    }
  }

  static smooth(points) {
    let path = `M${points[0].x} ${points[0].y}`;
    for (let i = 1; i + 1 < points.length; ++i) {
      const end = i + 2 === points.length ? points[i + 1]
                                          : {x: (points[i].x + points[i + 1].x) / 2, y: (points[i].y + points[i + 1].y) / 2};
      path += `Q${points[i].x} ${points[i].y} ${end.x} ${end.y}`;
    }
    return points.length === 2 ? path + `L${points[1].x} ${points[1].y}` : path;
  }

  // From one segment to another, or back.
  static arc(from, to) {
    const side = to.x >= from.x ? 1 : -1;
    const x1 = from.x + side * from.width / 2;
    const x2 = to.x - side * to.width / 2;
    return `M${x1} ${from.y}C${x1 + side * 50} ${from.y} ${x2 - side * 50} ${to.y} ${x2} ${to.y}`;
  }

  drawNode(node, slowest) {
    const left = node.x - node.width / 2;
    const top = node.y - node.height / 2;
    const group = makeSvg('g', {class: 'node' + (node.layer ? '' : ' end'), 'data-key': node.key});
    group.append(makeSvg('rect', {
      class: 'body', x: left, y: top, width: node.width, height: node.height, rx: node.layer ? 7 : END_HEIGHT / 2,
    }));
    if (node.layer?.time && slowest > 0) {
      group.append(makeSvg('rect', {
        class: 'heat', x: left + 7, y: top + node.height - 5, height: 3,
        width: (node.width - 14) * node.layer.time.median / slowest,
      }));
    }
    group.append(makeSvg('text', {class: 'name', x: node.x, y: top + 19, 'text-anchor': 'middle'}, node.text[0]));
    if (node.text[1]) {
      group.append(makeSvg('text', {class: 'shape', x: node.x, y: top + 34, 'text-anchor': 'middle'}, node.text[1]));
    }
    if (node.layer) {
      const verdict = differs(node.layer);
      group.classList.toggle('differs', verdict === true);
      group.classList.toggle('same', verdict === false);
      this.layerNodes[node.layer.number] = node;
    } else {
      group.append(makeSvg('title', {}, node.spec ? `${node.spec.name} ${shapeText(node.spec.shape)}` : node.text[0]));
    }
    node.element = group;
    this.world.append(group);
  }

  listen() {
    let grabbed = null;
    this.svg.addEventListener('pointerdown', (event) => {
      grabbed = {x: event.clientX, y: event.clientY, view: {...this.view}, moved: false};
    });
    this.svg.addEventListener('pointermove', (event) => {
      if (grabbed === null || event.buttons === 0) {
        grabbed = null;
        return;
      }
      const dx = event.clientX - grabbed.x;
      const dy = event.clientY - grabbed.y;
      if (!grabbed.moved && Math.hypot(dx, dy) > 4) {
        grabbed.moved = true;
        this.svg.setPointerCapture(event.pointerId);
        this.svg.classList.add('moving');
      }
      if (grabbed.moved) {
        this.show({...this.view, x: grabbed.view.x + dx, y: grabbed.view.y + dy});
      }
    });
    this.svg.addEventListener('pointerup', (event) => {
      const node = this.nodes.get(event.target.closest('.node')?.dataset.key);
      if (grabbed && !grabbed.moved && node?.layer) {
        this.onSelect(node.layer);
      }
      grabbed = null;
      this.svg.classList.remove('moving');
    });
    this.svg.addEventListener('wheel', (event) => {
      event.preventDefault();
      if (event.ctrlKey || event.metaKey) {
        const box = this.svg.getBoundingClientRect();
        this.zoom(Math.exp(-event.deltaY * 0.01), event.clientX - box.left, event.clientY - box.top);
      } else {
        this.show({...this.view, x: this.view.x - event.deltaX, y: this.view.y - event.deltaY});
      }
    }, {passive: false});
  }

  show(view) {
    this.view = view;
    this.frame ??= requestAnimationFrame(() => {
      this.frame = undefined;
      this.world.setAttribute('transform', `translate(${this.view.x} ${this.view.y}) scale(${this.view.scale})`);
      this.svg.classList.toggle('distant', this.view.scale < 0.3);
    });
  }

  zoom(factor, x = this.svg.clientWidth / 2, y = this.svg.clientHeight / 2) {
    const scale = Math.min(Math.max(this.view.scale * factor, SMALLEST_SCALE), LARGEST_SCALE);
    const change = scale / this.view.scale;
    this.show({scale, x: x - (x - this.view.x) * change, y: y - (y - this.view.y) * change});
  }

  fitScale() {
    return Math.min(this.svg.clientWidth / (this.width + 40), this.svg.clientHeight / (this.height + 40), 1.2);
  }

  fit() {
    const scale = Math.max(this.fitScale(), SMALLEST_SCALE);
    this.show({scale, x: (this.svg.clientWidth - this.width * scale) / 2,
               y: (this.svg.clientHeight - this.height * scale) / 2});
  }

  // All of it where that can be read, else the beginning.
  start() {
    this.fit();
    if (this.view.scale < READABLE_SCALE) {
      const first = this.segments[0];
      const scale = Math.min(Math.max(this.svg.clientWidth / (first.width + 40), READABLE_SCALE), 1);
      this.show({scale, x: (this.svg.clientWidth - first.width * scale) / 2, y: 16});
    }
  }

  select(layer) {
    this.svg.querySelector('.node.selected')?.classList.remove('selected');
    this.svg.querySelectorAll('.edge.near').forEach((edge) => edge.classList.remove('near'));
    if (layer !== undefined) {
      this.layerNodes[layer.number].element.classList.add('selected');
      (this.edgesOf.get(layer.number) ?? []).forEach((edge) => edge.classList.add('near'));
      this.reveal(this.layerNodes[layer.number]);
    }
  }

  // Moves as little as it takes for a node to be well inside.
  reveal(node) {
    const scale = Math.max(this.view.scale, READABLE_SCALE);
    const place = (centre, half, offset, size) => {
      const margin = Math.min(60, size / 4);
      const low = (centre - half) * scale + offset;
      const high = (centre + half) * scale + offset;
      return low < margin ? offset + margin - low : high > size - margin ? offset + size - margin - high : offset;
    };
    const change = scale / this.view.scale;
    const middle = {x: this.svg.clientWidth / 2, y: this.svg.clientHeight / 2};
    const x = middle.x - (middle.x - this.view.x) * change;
    const y = middle.y - (middle.y - this.view.y) * change;
    this.show({scale, x: place(node.x, node.width / 2, x, this.svg.clientWidth),
               y: place(node.y, node.height / 2, y, this.svg.clientHeight)});
  }

  highlight(found) {
    this.layerNodes.forEach((node) => node.element.classList.toggle('match', found.has(node.layer)));
  }
}
