// A node's parameters as an editable table. Values are typed by the parameter's type before
// they are sent; the server's answer (the value the node holds now, or why not) is shown.
export function parseValue(type, text) {
  switch (type) {
    case 'double': {
      const v = Number(text);
      if (text.trim() === '' || !Number.isFinite(v)) throw new Error('not a number');
      return v;
    }
    case 'int': {
      if (!/^\s*-?\d+\s*$/.test(text)) throw new Error('not an integer');
      return Number.parseInt(text, 10);
    }
    case 'bool':
      if (text !== 'true' && text !== 'false') throw new Error('not true or false');
      return text === 'true';
    case 'string':
      return text;
    default:
      return JSON.parse(text); // a message, in protobuf's JSON mapping
  }
}

function shown(param) {
  if (param.type === 'string' && typeof param.value === 'string') return param.value;
  return JSON.stringify(param.value);
}

export class ParamTable {
  constructor({ select, tbody, result, send }) {
    this.select = select;
    this.tbody = tbody;
    this.result = result;
    this.send = send;
    this.node = '';
    this.nextId = 1;
    this.rows = new Map(); // name -> { param, input, text shown }
    select.addEventListener('change', () => this.show(select.value));
  }

  setNodes(names) {
    const current = this.select.value;
    const options = ['', ...names];
    const have = [...this.select.options].map((o) => o.value);
    if (JSON.stringify(have) === JSON.stringify(options)) return;
    this.select.replaceChildren(
      ...options.map((n) => {
        const o = document.createElement('option');
        o.value = n;
        o.textContent = n || '—';
        return o;
      }),
    );
    this.select.value = options.includes(current) ? current : '';
  }

  show(node) {
    this.node = node;
    this.select.value = node;
    this.tbody.replaceChildren();
    this.rows.clear();
    this.result.textContent = '';
    if (node) this.send({ op: 'listParams', node });
  }

  onParams(message) {
    if (message.node !== this.node) return;
    if (message.error) {
      const tr = document.createElement('tr');
      const td = document.createElement('td');
      td.colSpan = 4;
      td.className = 'error';
      td.textContent = message.error;
      tr.appendChild(td);
      this.tbody.replaceChildren(tr);
      this.rows.clear();
      return;
    }
    // The same parameters again (a refresh after a set): values change in place, and a field
    // the user is typing into is left alone.
    const same =
      message.params.length === this.rows.size &&
      message.params.every((p) => this.rows.get(p.name)?.param.type === p.type);
    if (same) {
      for (const p of message.params) {
        const row = this.rows.get(p.name);
        row.param = p;
        const editing = document.activeElement === row.input && row.input.value !== row.shown;
        if (!editing) row.input.value = row.shown = shown(p);
      }
      return;
    }
    this.rows.clear();
    this.tbody.replaceChildren(...message.params.map((p) => this.row(p)));
  }

  row(param) {
    const tr = document.createElement('tr');
    tr.dataset.param = param.name;
    const name = document.createElement('td');
    name.textContent = param.name;
    const type = document.createElement('td');
    type.textContent = param.type;
    type.className = 'dim';
    const valueCell = document.createElement('td');
    let input;
    if (param.type === 'bool') {
      input = document.createElement('select');
      for (const v of ['true', 'false']) {
        const o = document.createElement('option');
        o.value = o.textContent = v;
        input.appendChild(o);
      }
    } else {
      input = document.createElement('input');
      input.type = 'text';
    }
    input.value = shown(param);
    input.name = param.name;
    const entry = { param, input, shown: input.value };
    this.rows.set(param.name, entry);
    valueCell.appendChild(input);
    const action = document.createElement('td');
    const button = document.createElement('button');
    button.textContent = 'set';
    action.appendChild(button);
    const submit = () => this.set(entry.param, input.value);
    button.addEventListener('click', submit);
    input.addEventListener('keydown', (e) => {
      if (e.key === 'Enter') submit();
    });
    tr.append(name, type, valueCell, action);
    return tr;
  }

  set(param, text) {
    let value;
    try {
      value = parseValue(param.type, text);
    } catch (e) {
      this.report(false, `${param.name}: ${e.message}`);
      return;
    }
    const id = `set-${this.nextId++}`;
    this.send({ op: 'setParam', node: this.node, name: param.name, value, id });
    this.report(null, `setting ${param.name}…`);
  }

  onResult(message) {
    if (message.node !== this.node) return;
    if (message.ok) this.report(true, `${message.node}/${message.name} = ${shown(message.param)}`);
    else this.report(false, `${message.node}/${message.name}: ${message.error}`);
  }

  report(ok, text) {
    this.result.textContent = text;
    this.result.className = ok === true ? 'ok' : ok === false ? 'error' : 'dim';
  }
}
