"use strict";
// Our recordings through the outside readers: @mcap/core reads each indexed and streaming
// with CRC checks, the messages decode with protobufjs from the stored FileDescriptorSet, and
// the counts per topic match what our own reader found.
// Usage: node read_ours.js <mcap_outside_fixture> <work dir>
const path = require("path");
const { load, readable, run, check, finish, fs } = require("./common");

const lib = load();
const [fixture, dir] = process.argv.slice(2);

// Decoders per schema id, built from the schema's FileDescriptorSet.
function decoders(schemasById) {
  const out = new Map();
  for (const [id, schema] of schemasById) {
    check(schema.encoding === "protobuf", `schema ${schema.name} encoding ${schema.encoding}`);
    const set = lib.descriptor.FileDescriptorSet.decode(schema.data);
    const root = lib.protobuf.Root.fromDescriptor(set);
    out.set(id, root.lookupType(schema.name));
  }
  return out;
}

// Decodes and checks the content our fixture wrote, counting per topic in `seen`.
function checkMessage(channel, schema, type, message, seen) {
  const decoded = type.toObject(type.decode(message.data), { longs: Number });
  const n = seen.get(channel.topic) || 0;
  seen.set(channel.topic, n + 1);
  const what = () => `${channel.topic} message ${n} decodes as ${JSON.stringify(decoded).slice(0, 80)}`;
  if (schema.name === "korvan.test.PlainMessage") {
    check(decoded.sequence === n && decoded.text === `plain ${n}`, what);
  } else {
    check(decoded.left.base.id === n && decoded.left.label === `diamond ${n}`, what);
  }
  check(message.publishTime === message.logTime - 500n, "publish time is log time - 500 ns");
  check(message.sequence === n, `${channel.topic} sequence ${message.sequence}, expected ${n}`);
}

function sameCounts(got, expected, what) {
  for (const [topic, count] of Object.entries(expected)) {
    if (count > 0) check(got.get(topic) === count, `${what}: ${topic} ${got.get(topic)} of ${count}`);
  }
  for (const topic of got.keys()) check(topic in expected, `${what}: unexpected topic ${topic}`);
}

async function readIndexed(bytes, expected, name, decompressHandlers) {
  const reader = await lib.core.McapIndexedReader.Initialize({
    readable: readable(bytes),
    decompressHandlers,
  });
  const types = decoders(reader.schemasById);
  const seen = new Map();
  let last = -1n;
  for await (const message of reader.readMessages({ validateCrcs: true })) {
    const channel = reader.channelsById.get(message.channelId);
    const schema = reader.schemasById.get(channel.schemaId);
    checkMessage(channel, schema, types.get(channel.schemaId), message, seen);
    check(message.logTime >= last, () => `${name}: log times ordered`);
    last = message.logTime;
  }
  sameCounts(seen, expected.counts, `${name} indexed`);
  // Statistics, summary offsets and the data section CRC, which the reader only reports.
  const stats = reader.statistics;
  check(stats && Number(stats.messageCount) === [...seen.values()].reduce((a, b) => a + b, 0),
    `${name}: statistics count`);
  check(stats.channelMessageCounts.get(0) === BigInt(expected.counts["/plain"]),
    `${name}: per-channel statistics`);
  for (const opcode of [lib.core.Opcode.SCHEMA, lib.core.Opcode.CHANNEL, lib.core.Opcode.CHUNK_INDEX,
    lib.core.Opcode.STATISTICS]) {
    check(reader.summaryOffsetsByOpcode.has(opcode), `${name}: summary offset of opcode ${opcode}`);
  }
  const dataCrc = lib.crc32(bytes.subarray(0, Number(reader.dataEndOffset)));
  check(reader.dataSectionCrc === dataCrc,
    `${name}: data section CRC ${reader.dataSectionCrc} computed ${dataCrc}`);
  check(reader.channelsById.size === 3, `${name}: three channels in the summary`);
  const plain = [...reader.channelsById.values()].find((c) => c.topic === "/plain");
  check(plain.metadata.get("origin") === "korvan", `${name}: channel metadata`);
}

function readStreaming(bytes, expected, name, decompressHandlers) {
  const reader = new lib.core.McapStreamReader({ decompressHandlers, validateCrcs: true });
  reader.append(bytes);
  const schemas = new Map();
  const channels = new Map();
  const types = new Map();
  const seen = new Map();
  let record;
  let footer = false;
  while ((record = reader.nextRecord())) {
    if (record.type === "Schema") {
      schemas.set(record.id, record);
      types.set(record.id, decoders(new Map([[record.id, record]])).get(record.id));
    } else if (record.type === "Channel") {
      channels.set(record.id, record);
    } else if (record.type === "Message") {
      const channel = channels.get(record.channelId);
      checkMessage(channel, schemas.get(channel.schemaId), types.get(channel.schemaId), record, seen);
    } else if (record.type === "Footer") {
      footer = true;
    }
  }
  sameCounts(seen, expected.counts, `${name} streaming`);
  check(footer === expected.indexed, `${name}: footer ${footer ? "present" : "missing"}`);
  check(reader.done() === expected.indexed, `${name}: the stream reader is done`);
}

async function main() {
  fs.mkdirSync(dir, { recursive: true });
  run(fixture, ["write", dir]);
  const decompressHandlers = await lib.support.loadDecompressHandlers();
  const expected = JSON.parse(fs.readFileSync(path.join(dir, "expected.json"), "utf8"));
  for (const file of expected) {
    const bytes = new Uint8Array(fs.readFileSync(path.join(dir, file.name)));
    try {
      if (file.indexed) await readIndexed(bytes, file, file.name, decompressHandlers);
      readStreaming(bytes, file, file.name, decompressHandlers);
    } catch (error) {
      check(false, `${file.name}: ${error.stack}`);
    }
    console.log(`${file.name}: ${JSON.stringify(file.counts)} read`);
  }
  check(expected.length === 5, "five recordings");
  finish();
}

main().catch((error) => {
  console.error(error);
  process.exit(1);
});
