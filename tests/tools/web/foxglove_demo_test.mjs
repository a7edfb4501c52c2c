// A client of the field, npm's @foxglove/ws-protocol, against `korvan web` on the real bus
// while the demo runs: it lists the channels, subscribes to the demo's pose and decodes it with
// nothing but the advertised schema (protobufjs from the FileDescriptorSet), and reads the
// planner's speed through its parameter service. Started by web_live_test.
//   node foxglove_demo_test.mjs --web-dir <web/> --port <korvan web's port>
import { args, check, outcome, packagesOf, waitFor } from './harness.mjs';

const opts = args();
const require = packagesOf(opts['web-dir']);
const { FoxgloveClient } = require('@foxglove/ws-protocol');
const WebSocket = require('ws');
const protobuf = require('protobufjs');
require('protobufjs/ext/descriptor');

const rootFromSchema = (base64) => protobuf.Root.fromDescriptor(Buffer.from(base64, 'base64'));
const bytes = (view) => new Uint8Array(view.buffer, view.byteOffset, view.byteLength);

await outcome('foxglove client on the demo', async () => {
  const ws = new WebSocket(`ws://127.0.0.1:${opts.port}/`, [FoxgloveClient.SUPPORTED_SUBPROTOCOL]);
  const client = new FoxgloveClient({ ws });
  let info = null;
  const channels = new Map();
  const services = new Map();
  const messages = [];
  const responses = [];
  const statuses = [];
  client.on('serverInfo', (i) => (info = i));
  client.on('advertise', (list) => list.forEach((c) => channels.set(c.topic, c)));
  client.on('unadvertise', (ids) => {
    for (const [topic, c] of channels) if (ids.includes(c.id)) channels.delete(topic);
  });
  client.on('advertiseServices', (list) => list.forEach((s) => services.set(s.name, s)));
  client.on('message', (m) => messages.push(m));
  client.on('serviceCallResponse', (r) => responses.push(r));
  client.on('status', (s) => statuses.push(s));
  client.on('error', (e) => statuses.push({ level: 2, message: String(e) }));
  try {
    await waitFor('serverInfo', () => info);
    check(info.capabilities.includes('services'), `capabilities ${info.capabilities}`);

    // Every topic of the demo with its protobuf schema, the lifecycle signals included.
    const pose = await waitFor('the demo/pose channel', () => channels.get('demo/pose'), 30000);
    check(pose.encoding === 'protobuf' && pose.schemaEncoding === 'protobuf', JSON.stringify(pose));
    check(pose.schemaName === 'korvan.demo.Pose', pose.schemaName);
    await waitFor("the planner's signals", () => channels.get('planner/post_proc'));
    console.log(`channels: ${[...channels.values()].map((c) => `${c.topic} (${c.schemaName})`).join(', ')}`);

    // Subscribed, the pose arrives as the planner wrote it, and decodes with the schema alone.
    const Pose = rootFromSchema(pose.schema).lookupType(pose.schemaName);
    const subscription = client.subscribe(pose.id);
    const first = await waitFor('a pose', () => messages.find((m) => m.subscriptionId === subscription), 15000);
    const decoded = Pose.toObject(Pose.decode(bytes(first.data)), { longs: String });
    check(typeof decoded.x === 'number' && typeof decoded.heading === 'number', JSON.stringify(decoded));
    check(Number(decoded.counter) > 0 && decoded.publisher_id !== undefined, `stamps ${JSON.stringify(decoded)}`);
    const publishMs = Number(BigInt(decoded.publish_ts) / 1000000n);
    const receiveMs = Number(first.timestamp / 1000000n);
    check(receiveMs >= publishMs && receiveMs - publishMs < 5000, `publish ${publishMs}, receive ${receiveMs}`);
    await waitFor('a few more poses', () => messages.filter((m) => m.subscriptionId === subscription).length >= 3);
    const counters = messages
      .filter((m) => m.subscriptionId === subscription)
      .map((m) => Number(Pose.decode(bytes(m.data)).counter));
    check(counters.every((c, i) => i === 0 || c > counters[i - 1]), `counters ${counters}`);
    console.log(`decoded pose: ${JSON.stringify(decoded)}`);

    // A service of the bus, called with its advertised schemas: the planner's parameters.
    const get = await waitFor('planner/get_parameter', () => services.get('planner/get_parameter'));
    const root = rootFromSchema(get.request.schema);
    const Request = root.lookupType(get.request.schemaName);
    const Response = root.lookupType(get.response.schemaName);
    client.sendServiceCallRequest({
      serviceId: get.id,
      callId: 1,
      encoding: 'protobuf',
      data: Request.encode(Request.create({ value: 'speed' })).finish(),
    });
    const response = await waitFor('the answer', () => responses.find((r) => r.callId === 1), 20000);
    const param = Response.toObject(Response.decode(bytes(response.data)));
    check(param.name === 'speed' && typeof param.double_value === 'number', JSON.stringify(param));
    console.log(`planner/get_parameter speed: ${JSON.stringify(param)}`);

    client.unsubscribe(subscription);
    check(!statuses.some((s) => s.level === 2), `errors: ${JSON.stringify(statuses)}`);
  } finally {
    client.close();
  }
});
