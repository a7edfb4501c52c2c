"use strict";
// A recording written by @mcap/core for `korvan bag play`: one topic of korvan.test.PlainMessage
// (the schema built by protobufjs, not by our compiler), messages 10 ms apart with sequence
// 0, 1, ... and text "outside <n>", zstd chunks of 512 bytes.
// Usage: node write_for_play.js <file> <topic> <count>
const { load, check, finish, fs } = require("./common");

const lib = load();
const [file, topic, countText] = process.argv.slice(2);
const count = Number(countText);

async function main() {
  await lib.zstd.isLoaded;
  const root = lib.protobuf.Root.fromJSON({
    nested: {
      korvan: {
        nested: {
          test: {
            nested: {
              PlainMessage: {
                fields: {
                  sequence: { type: "uint64", id: 1 },
                  text: { type: "string", id: 2 },
                  payload: { type: "bytes", id: 3 },
                },
              },
            },
          },
        },
      },
    },
  });
  const Plain = root.lookupType("korvan.test.PlainMessage");
  const descriptorSet = lib.descriptor.FileDescriptorSet.encode(root.toDescriptor("proto2")).finish();

  const chunks = [];
  let position = 0n;
  const writable = {
    position: () => position,
    write: async (buffer) => {
      chunks.push(Buffer.from(buffer));
      position += BigInt(buffer.byteLength);
    },
  };
  const writer = new lib.core.McapWriter({
    writable,
    chunkSize: 512,
    compressChunk: (data) => ({ compression: "zstd", compressedData: lib.zstd.compress(data) }),
  });
  await writer.start({ profile: "", library: "outside writer" });
  const schemaId = await writer.registerSchema({
    name: "korvan.test.PlainMessage",
    encoding: "protobuf",
    data: descriptorSet,
  });
  const channelId = await writer.registerChannel({
    topic,
    schemaId,
    messageEncoding: "protobuf",
    metadata: new Map(),
  });
  const start = 1700000000000000000n;
  for (let n = 0; n < count; n++) {
    const data = Plain.encode(Plain.fromObject({
      sequence: n,
      text: `outside ${n}`,
      payload: Buffer.alloc(n % 5 * 100, n),
    })).finish();
    const time = start + BigInt(n) * 10000000n;
    await writer.addMessage({ channelId, sequence: n, logTime: time, publishTime: time, data });
  }
  await writer.end();
  fs.writeFileSync(file, Buffer.concat(chunks));
  check(true, "written");
  finish();
}

main().catch((error) => {
  console.error(error);
  process.exit(1);
});
