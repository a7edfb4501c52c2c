// A client of the field, @foxglove/ws-protocol, against the web server with the fake source:
// it lists the channels, subscribes and decodes a message with the schema the server
// advertised (protobufjs from the base64 FileDescriptorSet), and calls a service.
//   node foxglove_client_test.mjs --web-dir <web/> --server <korvan_web_test_server>
import { args, check, packagesOf, run, waitFor } from './harness.mjs';

const opts = args();
const require = packagesOf(opts['web-dir']);
const { FoxgloveClient } = require('@foxglove/ws-protocol');
const WebSocket = require('ws');
const protobuf = require('protobufjs');
require('protobufjs/ext/descriptor');

function rootFromSchema(base64) {
  return protobuf.Root.fromDescriptor(Buffer.from(base64, 'base64'));
}

const bytes = (view) => new Uint8Array(view.buffer, view.byteOffset, view.byteLength);

await run('foxglove client', opts.server, [], async (server) => {
  const ws = new WebSocket(`ws://127.0.0.1:${server.port}/`, [FoxgloveClient.SUPPORTED_SUBPROTOCOL]);
  const client = new FoxgloveClient({ ws });
  let info = null;
  const channels = new Map();
  const services = new Map();
  const messages = [];
  const responses = [];
  const failures = [];
  const statuses = [];
  client.on('serverInfo', (i) => (info = i));
  client.on('advertise', (list) => list.forEach((c) => channels.set(c.topic, c)));
  client.on('advertiseServices', (list) => list.forEach((s) => services.set(s.name, s)));
  client.on('message', (m) => messages.push(m));
  client.on('serviceCallResponse', (r) => responses.push(r));
  client.on('serviceCallFailure', (f) => failures.push(f));
  client.on('status', (s) => statuses.push(s));
  client.on('error', (e) => statuses.push({ level: 2, message: String(e) }));

  try {
    await waitFor('serverInfo', () => info);
    check(ws.protocol === 'foxglove.websocket.v1', `subprotocol ${ws.protocol}`);
    check(info.capabilities.includes('services'), `capabilities ${info.capabilities}`);
    check(typeof info.sessionId === 'string' && info.sessionId.length > 0, 'no sessionId');

    const pose = await waitFor('the /demo/pose channel', () => channels.get('/demo/pose'));
    check(channels.has('/demo/clock'), `channels: ${[...channels.keys()]}`);
    check(pose.encoding === 'protobuf' && pose.schemaEncoding === 'protobuf', JSON.stringify(pose));
    console.log(`channels: ${[...channels.values()].map((c) => `${c.topic} (${c.schemaName})`).join(', ')}`);

    // Subscribe and decode with nothing but what was advertised.
    const Pose = rootFromSchema(pose.schema).lookupType(pose.schemaName);
    const subscription = client.subscribe(pose.id);
    const message = await waitFor('a pose', () => messages.find((m) => m.subscriptionId === subscription));
    const decoded = Pose.toObject(Pose.decode(bytes(message.data)), { longs: String });
    check(decoded.frame_id === 'map', `decoded ${JSON.stringify(decoded)}`);
    check(Number(decoded.seq) > 0, `seq ${decoded.seq}`);
    check(decoded.stamp && Number(decoded.stamp.seconds) > 1.6e9, `stamp ${JSON.stringify(decoded.stamp)}`);
    const ageMs = Date.now() - Number(message.timestamp / 1000000n);
    check(Math.abs(ageMs) < 60000, `receive time ${message.timestamp} is ${ageMs} ms off`);
    console.log(`decoded pose: ${JSON.stringify(decoded)}`);

    // A service call with the advertised request and response schemas.
    const service = await waitFor('the set_speed service', () => services.get('/planner/set_speed'));
    const serviceRoot = rootFromSchema(service.request.schema);
    const Request = serviceRoot.lookupType(service.request.schemaName);
    const Response = serviceRoot.lookupType(service.response.schemaName);
    client.sendServiceCallRequest({
      serviceId: service.id,
      callId: 11,
      encoding: 'protobuf',
      data: Request.encode(Request.create({ speed: 2.75 })).finish(),
    });
    const response = await waitFor('the service response', () => responses.find((r) => r.callId === 11));
    check(response.serviceId === service.id && response.encoding === 'protobuf', JSON.stringify(response));
    const answer = Response.toObject(Response.decode(bytes(response.data)));
    check(answer.accepted === true && answer.previous === 1.5, `response ${JSON.stringify(answer)}`);
    await waitFor('the service to set the parameter', () =>
      server.lines.includes('param planner/speed=2.750000'),
    );
    console.log(`service answered: ${JSON.stringify(answer)}`);

    // A call to a service that is not there fails the call, not the connection.
    client.sendServiceCallRequest({ serviceId: 4242, callId: 12, encoding: 'protobuf', data: new Uint8Array() });
    await waitFor('serviceCallFailure', () => failures.find((f) => f.callId === 12));

    // Frames to one client keep their order and the server handles its requests in order, so
    // once a message of the new subscription arrives, no pose may follow.
    client.unsubscribe(subscription);
    const clock = channels.get('/demo/clock');
    const marker = client.subscribe(clock.id);
    const first = await waitFor('a clock message', () => {
      const i = messages.findIndex((m) => m.subscriptionId === marker);
      return i >= 0 ? i + 1 : 0;
    });
    await waitFor('a second clock message', () =>
      messages.slice(first).some((m) => m.subscriptionId === marker),
    );
    const late = messages.slice(first).filter((m) => m.subscriptionId === subscription);
    check(late.length === 0, `${late.length} pose messages after unsubscribing`);
    check(!statuses.some((s) => s.level === 2), `errors: ${JSON.stringify(statuses)}`);
  } finally {
    client.close();
  }
});
