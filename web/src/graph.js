// The live graph: nodes, topics and services as vertices; publishing, subscribing and
// providing as edges. Laid out left to right by dagre; redrawn only when the graph changes.
import cytoscape from 'cytoscape';
import dagre from 'cytoscape-dagre';

cytoscape.use(dagre);

const STYLE = [
  {
    selector: 'node',
    style: {
      label: 'data(label)',
      'font-size': 11,
      'text-wrap': 'wrap',
      'text-valign': 'center',
      'text-halign': 'center',
      color: '#1d2733',
      width: 'label',
      height: 'label',
      padding: 8,
      'border-width': 1,
    },
  },
  {
    selector: 'node[kind = "node"]',
    style: { shape: 'round-rectangle', 'background-color': '#cfe3ff', 'border-color': '#4a7fc1' },
  },
  {
    selector: 'node[kind = "topic"]',
    style: { shape: 'ellipse', 'background-color': '#e3f4df', 'border-color': '#5c9a51' },
  },
  {
    selector: 'node[kind = "service"]',
    style: { shape: 'diamond', 'background-color': '#efe1fa', 'border-color': '#8a5bb3', padding: 14 },
  },
  { selector: 'node.failed', style: { 'background-color': '#ffd2cc', 'border-color': '#c0392b', 'border-width': 2 } },
  { selector: 'node.selected', style: { 'border-width': 3, 'border-color': '#f39c12' } },
  {
    selector: 'edge',
    style: {
      width: 1.5,
      'curve-style': 'bezier',
      'target-arrow-shape': 'triangle',
      'line-color': '#8a96a3',
      'target-arrow-color': '#8a96a3',
    },
  },
  { selector: 'edge.provides', style: { 'line-style': 'dashed', 'target-arrow-shape': 'none' } },
];

export class GraphView {
  constructor(container, { onTopic, onNode }) {
    this.cy = cytoscape({ container, style: STYLE, elements: [], minZoom: 0.2, maxZoom: 3 });
    this.signature = '';
    this.selectedTopic = '';
    this.failedApps = new Set();
    this.cy.on('tap', 'node', (event) => {
      const data = event.target.data();
      if (data.kind === 'topic') onTopic(data.name);
      else if (data.kind === 'node') onNode(data.name);
    });
  }

  update(graph) {
    const nodes = new Map();
    const edges = [];
    const addNode = (name, application = '') => {
      if (!nodes.has(`n:${name}`))
        nodes.set(`n:${name}`, { data: { id: `n:${name}`, kind: 'node', name, application, label: name } });
    };
    for (const n of graph.nodes) addNode(n.name, n.application);
    for (const t of graph.topics) {
      const id = `t:${t.name}`;
      const type = t.type ? t.type.split('.').pop() : '?';
      nodes.set(id, { data: { id, kind: 'topic', name: t.name, label: `${t.name}\n${type}` } });
      for (const p of t.publishers) {
        addNode(p);
        edges.push({ data: { id: `pub:${p}>${t.name}`, source: `n:${p}`, target: id }, classes: 'publishes' });
      }
      for (const s of t.subscribers) {
        addNode(s);
        edges.push({ data: { id: `sub:${t.name}>${s}`, source: id, target: `n:${s}` }, classes: 'subscribes' });
      }
    }
    for (const s of graph.services) {
      const id = `s:${s.name}`;
      nodes.set(id, { data: { id, kind: 'service', name: s.name, label: s.name } });
      for (const p of s.providers) {
        addNode(p);
        edges.push({ data: { id: `srv:${p}>${s.name}`, source: `n:${p}`, target: id }, classes: 'provides' });
      }
    }
    const elements = [...nodes.values(), ...edges];
    const signature = JSON.stringify(elements.map((e) => [e.data.id, e.data.label ?? '']));
    if (signature === this.signature) return;
    this.signature = signature;
    this.cy.batch(() => {
      this.cy.elements().remove();
      this.cy.add(elements);
    });
    this.cy.layout({ name: 'dagre', rankDir: 'LR', nodeSep: 18, rankSep: 70, fit: true, padding: 16 }).run();
    this.restyle();
  }

  select(topic) {
    this.selectedTopic = topic;
    this.restyle();
  }

  setFailedApplications(names) {
    this.failedApps = new Set(names);
    this.restyle();
  }

  restyle() {
    this.cy.batch(() => {
      this.cy.nodes().forEach((n) => {
        const d = n.data();
        n.toggleClass('selected', d.kind === 'topic' && d.name === this.selectedTopic);
        n.toggleClass('failed', d.kind === 'node' && this.failedApps.has(d.application || d.name));
      });
    });
  }
}
