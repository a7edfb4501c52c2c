// korvan web: a live view of the bus. Everything arrives over one WebSocket from the server
// that served this page; see connection.js for the channel.
import './style.css';
import { connect } from './connection.js';
import { GraphView } from './graph.js';
import { ParamTable } from './params.js';
import { TopicStats, formatDelay } from './stats.js';

const $ = (selector) => document.querySelector(selector);

let selectedTopic = '';
let knownTopics = new Set();
let lastGraph = null;

// Applications announce their lifecycle on nine topics each; they crowd the graph and the
// table, so they are shown on request (the applications panel has what they say).
const SIGNAL_TYPE = 'tarvik.quessa.messages.internal.AppSignal';
const signalTopics = new Set();
const showSignals = () => $('#show-signals').checked;
const shownTopic = (name) => showSignals() || !signalTopics.has(name);

const channel = connect({
  onState(up) {
    const el = $('#connection');
    el.textContent = up ? 'live' : 'disconnected, retrying…';
    el.className = `conn ${up ? 'conn-up' : 'conn-down'}`;
    if (up && selectedTopic) channel.send({ op: 'select', topic: selectedTopic });
    if (up && params.node) params.show(params.node);
  },
  onMessage(m) {
    const handler = handlers[m.op];
    if (handler) handler(m);
  },
});

const graph = new GraphView($('#graph'), {
  onTopic: (topic) => selectTopic(topic),
  onNode: (node) => params.show(node),
});
const stats = new TopicStats($('#topics tbody'), $('#selected-plot'), {
  onSelect: (topic) => selectTopic(topic),
  shown: shownTopic,
});
const params = new ParamTable({
  select: $('#param-node'),
  tbody: $('#params tbody'),
  result: $('#param-result'),
  send: (m) => channel.send(m),
});

function selectTopic(topic) {
  selectedTopic = topic;
  channel.send({ op: 'select', topic });
  graph.select(topic);
  stats.select(topic);
  $('#message-topic').textContent = topic ? `— ${topic}` : '— select a topic';
  $('#message-topic').className = topic ? '' : 'dim';
  $('#message').textContent = topic ? 'waiting for a message…' : '';
  $('#message-meta').textContent = '';
}

function showMessage(m) {
  if (m.topic !== selectedTopic) return;
  const received = new Date(m.receiveNs / 1e6);
  const delay = m.publishNs !== null ? formatDelay((m.receiveNs - m.publishNs) / 1e6) : '—';
  $('#message-meta').textContent =
    `${m.type} · received ${received.toLocaleTimeString()} · transmit delay ${delay}`;
  if (m.error !== undefined) {
    $('#message').textContent = `cannot decode: ${m.error}`;
    $('#message').className = 'error';
  } else {
    $('#message').textContent = JSON.stringify(m.json, null, 2);
    $('#message').className = '';
  }
}

function showApps(apps) {
  const rows = apps.map((a) => {
    const tr = document.createElement('tr');
    tr.dataset.app = a.name;
    tr.className = a.failed ? 'failed' : '';
    for (const [text, cls] of [
      [a.name, ''],
      [a.phase, `phase phase-${a.phase}`],
      [String(a.frame), 'num'],
      [a.failed ? a.failure || 'failed' : '', a.failed ? 'error' : ''],
    ]) {
      const td = document.createElement('td');
      td.textContent = text;
      td.className = cls;
      tr.appendChild(td);
    }
    return tr;
  });
  $('#apps tbody').replaceChildren(...rows);
  graph.setFailedApplications(apps.filter((a) => a.failed).map((a) => a.name));
}

const handlers = {
  hello(m) {
    $('#server-name').textContent = m.name && m.name !== 'korvan' ? `· ${m.name}` : '';
  },
  graph(m) {
    lastGraph = m;
    signalTopics.clear();
    for (const t of m.topics) if (t.type === SIGNAL_TYPE) signalTopics.add(t.name);
    const topics = m.topics.filter((t) => shownTopic(t.name));
    graph.update({ ...m, topics });
    stats.setTopics(topics);
    knownTopics = new Set(m.topics.map((t) => t.name));
    const nodes = new Set(m.nodes.map((n) => n.name));
    for (const t of m.topics) for (const n of [...t.publishers, ...t.subscribers]) nodes.add(n);
    params.setNodes([...nodes].sort());
    if (selectedTopic && !knownTopics.has(selectedTopic))
      $('#message-meta').textContent = 'the topic has left the bus';
  },
  stats: (m) => stats.update(m),
  message: showMessage,
  apps: (m) => showApps(m.apps),
  params: (m) => params.onParams(m),
  paramResult: (m) => params.onResult(m),
  error(m) {
    $('#param-result').textContent = m.message;
    $('#param-result').className = 'error';
  },
};

$('#show-signals').addEventListener('change', () => {
  if (lastGraph) handlers.graph(lastGraph);
});

// For tests and for poking at the page from the console.
window.korvan = { graph, stats, params, selectTopic };
