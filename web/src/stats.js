// Per-topic figures: the table with a sparkline of the rate over the last minute, and a
// larger plot of rate, bandwidth and delay for the selected topic. The history is kept here,
// from the server's updates (a few per second).
import uPlot from 'uplot';
import 'uplot/dist/uPlot.min.css';

const WINDOW_S = 60;

export function formatRate(hz) {
  return `${hz.toFixed(hz < 10 ? 2 : 1)} Hz`;
}

export function formatBandwidth(bytesPerSecond) {
  if (bytesPerSecond >= 1e6) return `${(bytesPerSecond / 1e6).toFixed(2)} MB/s`;
  if (bytesPerSecond >= 1e3) return `${(bytesPerSecond / 1e3).toFixed(1)} kB/s`;
  return `${bytesPerSecond.toFixed(0)} B/s`;
}

export function formatDelay(ms) {
  return ms === null || ms === undefined ? '—' : `${ms.toFixed(ms < 10 ? 2 : 1)} ms`;
}

class History {
  constructor() {
    this.time = [];
    this.rate = [];
    this.bandwidth = [];
    this.delay = [];
  }

  add(t, s) {
    this.time.push(t);
    this.rate.push(s.rateHz);
    this.bandwidth.push(s.bandwidth / 1e3);
    this.delay.push(s.delayMs);
    while (this.time.length && this.time[0] < t - WINDOW_S) {
      this.time.shift();
      this.rate.shift();
      this.bandwidth.shift();
      this.delay.shift();
    }
  }
}

// Figures are read against zero, not against their own wobble.
const fromZero = (u, min, max) => [0, max > 0 ? max * 1.15 : 1];

function sparkline(target) {
  return new uPlot(
    {
      width: 120,
      height: 30,
      legend: { show: false },
      cursor: { show: false },
      axes: [{ show: false }, { show: false }],
      scales: { x: { time: false }, y: { range: fromZero } },
      series: [{}, { stroke: '#4a7fc1', fill: 'rgba(74,127,193,0.15)', width: 1, points: { show: false } }],
    },
    [[], []],
    target,
  );
}

export class TopicStats {
  constructor(tbody, plotContainer, { onSelect, shown = () => true }) {
    this.tbody = tbody;
    this.plotContainer = plotContainer;
    this.onSelect = onSelect;
    this.shown = shown; // whether a topic has a row; the history is kept for every topic
    this.rows = new Map(); // topic -> {tr, cells, plot}
    this.history = new Map();
    this.types = new Map();
    this.selected = '';
    this.detail = null;
  }

  setTopics(topics) {
    const names = new Set(topics.map((t) => t.name));
    for (const t of topics) {
      this.types.set(t.name, t.type);
      // The package is in the tooltip: the short name keeps the figures in view.
      const cell = this.row(t.name).cells.type;
      cell.textContent = t.type ? t.type.split('.').pop() : '';
      cell.title = t.type;
    }
    for (const [name, row] of this.rows) {
      if (!names.has(name)) {
        row.plot.destroy();
        row.tr.remove();
        this.rows.delete(name);
      }
    }
  }

  row(topic) {
    let row = this.rows.get(topic);
    if (row) return row;
    const tr = document.createElement('tr');
    tr.dataset.topic = topic;
    const cells = {};
    for (const key of ['name', 'type', 'rate', 'bandwidth', 'delay', 'plot']) {
      const td = document.createElement('td');
      td.className = key;
      if (['rate', 'bandwidth', 'delay'].includes(key)) td.classList.add('num');
      tr.appendChild(td);
      cells[key] = td;
    }
    cells.name.textContent = topic;
    cells.rate.textContent = cells.bandwidth.textContent = cells.delay.textContent = '—';
    tr.addEventListener('click', () => this.onSelect(topic));
    // Rows stay in name order.
    const after = [...this.rows.keys()].filter((n) => n > topic).sort()[0];
    this.tbody.insertBefore(tr, after ? this.rows.get(after).tr : null);
    row = { tr, cells, plot: sparkline(cells.plot) };
    this.rows.set(topic, row);
    tr.classList.toggle('selected', topic === this.selected);
    return row;
  }

  update(message) {
    const t = message.timeMs / 1000;
    for (const s of message.topics) {
      if (!this.history.has(s.topic)) this.history.set(s.topic, new History());
      const h = this.history.get(s.topic);
      h.add(t, s);
      if (!this.shown(s.topic)) continue;
      const row = this.row(s.topic);
      row.cells.rate.textContent = formatRate(s.rateHz);
      row.cells.bandwidth.textContent = formatBandwidth(s.bandwidth);
      row.cells.delay.textContent = formatDelay(s.delayMs);
      row.plot.setData([h.time, h.rate]);
    }
    this.drawDetail();
  }

  select(topic) {
    this.selected = topic;
    for (const [name, row] of this.rows) row.tr.classList.toggle('selected', name === topic);
    if (this.detail) {
      this.detail.destroy();
      this.detail = null;
    }
    this.drawDetail();
  }

  drawDetail() {
    const h = this.history.get(this.selected);
    if (!this.selected || !h) return;
    const data = [h.time, h.rate, h.bandwidth, h.delay];
    if (this.detail) {
      this.detail.setData(data);
      return;
    }
    const width = Math.max(300, this.plotContainer.clientWidth - 8);
    this.detail = new uPlot(
      {
        width,
        height: 150,
        scales: { x: { time: true }, hz: { range: fromZero }, kb: { range: fromZero }, ms: { range: fromZero } },
        series: [
          {},
          { label: 'rate (Hz)', scale: 'hz', stroke: '#4a7fc1', width: 1.5, points: { show: false } },
          { label: 'bandwidth (kB/s)', scale: 'kb', stroke: '#5c9a51', width: 1.5, points: { show: false } },
          { label: 'delay (ms)', scale: 'ms', stroke: '#c0392b', width: 1.5, spanGaps: true, points: { show: false } },
        ],
        axes: [{}, { scale: 'hz', label: 'Hz', size: 50 }, { scale: 'ms', side: 1, label: 'ms', size: 50 }],
      },
      data,
      this.plotContainer,
    );
  }
}
