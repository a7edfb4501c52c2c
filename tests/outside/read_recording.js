"use strict";
// A recording made by `korvan bag record` from real publishers, through the outside readers:
// @mcap/core reads it indexed (when it has a summary) and streaming, with CRC checks; every
// message decodes with protobufjs from the schema stored in the file; the counts per topic
// are the ones the test expects; log times come in order from the indexed reader; the
// decoded `sequence` field counts up from 0 per topic; and where the type declares a counter
// stamp, the message's sequence is that counter.
// Usage: node read_recording.js <file> <expected.json>
//   expected.json: { "indexed": bool, "topics": { "<topic>": { "type": "...", "count": n,
//                    "first_sequence": n } } }
const { load, readable, check, finish, fs } = require("./common");

const lib = load();
const [file, expectedPath] = process.argv.slice(2);

function decoder(schema) {
  check(schema.encoding === "protobuf", `schema ${schema.name} encoding ${schema.encoding}`);
  const set = lib.descriptor.FileDescriptorSet.decode(schema.data);
  return lib.protobuf.Root.fromDescriptor(set).lookupType(schema.name);
}

// Checks one message against the expectation of its topic; counts it in `seen`.
function checkMessage(channel, schema, type, message, expected, seen) {
  const topic = expected.topics[channel.topic];
  check(topic !== undefined, () => `unexpected topic ${channel.topic}`);
  if (topic === undefined) return;
  check(schema.name === topic.type, () => `${channel.topic}: schema ${schema.name}`);
  check(channel.messageEncoding === "protobuf", `${channel.topic}: message encoding`);
  const n = seen.get(channel.topic) || 0;
  seen.set(channel.topic, n + 1);
  let decoded;
  try {
    // 64-bit stamps do not fit a double: longs as strings, turned into BigInt.
    decoded = type.toObject(type.decode(message.data), { longs: String });
  } catch (error) {
    check(false, `${channel.topic} message ${n} does not decode: ${error.message}`);
    return;
  }
  const first = topic.first_sequence || 0;
  check(Number(decoded.sequence) === first + n,
    () => `${channel.topic} message ${n}: sequence ${decoded.sequence}, expected ${first + n}`);
  if (decoded.counter !== undefined) {
    check(BigInt(message.sequence) === BigInt(decoded.counter) % 2n ** 32n,
      () => `${channel.topic} message ${n}: record sequence ${message.sequence}, counter ${decoded.counter}`);
  }
  if (decoded.publish_ts !== undefined) {
    check(message.publishTime === BigInt(decoded.publish_ts),
      () => `${channel.topic} message ${n}: publish time ${message.publishTime}, stamp ${decoded.publish_ts}`);
    check(message.publishTime <= message.logTime + 1000000000n,
      () => `${channel.topic} message ${n}: published after it was received`);
  }
}

function sameCounts(seen, expected, what) {
  for (const [topic, want] of Object.entries(expected.topics)) {
    check((seen.get(topic) || 0) === want.count,
      () => `${what}: ${topic} ${seen.get(topic) || 0} messages, expected ${want.count}`);
  }
}

async function readIndexed(bytes, expected, decompressHandlers) {
  const reader = await lib.core.McapIndexedReader.Initialize({
    readable: readable(bytes),
    decompressHandlers,
  });
  const types = new Map();
  for (const [id, schema] of reader.schemasById) types.set(id, decoder(schema));
  const seen = new Map();
  let last = -1n;
  for await (const message of reader.readMessages({ validateCrcs: true })) {
    const channel = reader.channelsById.get(message.channelId);
    const schema = reader.schemasById.get(channel.schemaId);
    checkMessage(channel, schema, types.get(channel.schemaId), message, expected, seen);
    check(message.logTime >= last, () => `indexed: log time ${message.logTime} after ${last}`);
    last = message.logTime;
  }
  sameCounts(seen, expected, "indexed");
  const total = Object.values(expected.topics).reduce((a, t) => a + t.count, 0);
  check(reader.statistics && Number(reader.statistics.messageCount) === total,
    "indexed: statistics count");
  const dataCrc = lib.crc32(bytes.subarray(0, Number(reader.dataEndOffset)));
  check(reader.dataSectionCrc === dataCrc, "indexed: data section CRC");
}

function readStreaming(bytes, expected, decompressHandlers) {
  const reader = new lib.core.McapStreamReader({ decompressHandlers, validateCrcs: true });
  reader.append(bytes);
  const schemas = new Map();
  const channels = new Map();
  const types = new Map();
  const seen = new Map();
  let footer = false;
  let record;
  for (;;) {
    try {
      record = reader.nextRecord();
    } catch (error) {
      // A recording cut short may end inside a record: the reader stops there.
      check(!expected.indexed, `streaming: ${error.message}`);
      break;
    }
    if (!record) break;
    if (record.type === "Schema") {
      schemas.set(record.id, record);
      types.set(record.id, decoder(record));
    } else if (record.type === "Channel") {
      channels.set(record.id, record);
    } else if (record.type === "Message") {
      const channel = channels.get(record.channelId);
      checkMessage(channel, schemas.get(channel.schemaId), types.get(channel.schemaId), record,
        expected, seen);
    } else if (record.type === "Footer") {
      footer = true;
    }
  }
  sameCounts(seen, expected, "streaming");
  check(footer === expected.indexed, `streaming: footer ${footer ? "present" : "missing"}`);
}

async function main() {
  const expected = JSON.parse(fs.readFileSync(expectedPath, "utf8"));
  const bytes = new Uint8Array(fs.readFileSync(file));
  const decompressHandlers = await lib.support.loadDecompressHandlers();
  try {
    if (expected.indexed) await readIndexed(bytes, expected, decompressHandlers);
    readStreaming(bytes, expected, decompressHandlers);
  } catch (error) {
    check(false, `${file}: ${error.stack}`);
  }
  console.log(`${file}: ${JSON.stringify(expected.topics)} read`);
  finish();
}

main().catch((error) => {
  console.error(error);
  process.exit(1);
});
