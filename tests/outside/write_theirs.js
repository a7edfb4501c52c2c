"use strict";
// The other direction: @mcap/core's writer makes a recording (protobuf schema, zstd chunks,
// an attachment and a metadata record our reader skips), and our reader reads it fully.
// Usage: node write_theirs.js <mcap_outside_fixture> <work dir>
const path = require("path");
const { load, run, check, finish, fs } = require("./common");

const lib = load();
const [fixture, dir] = process.argv.slice(2);

const MESSAGES = 400;

async function main() {
  fs.mkdirSync(dir, { recursive: true });
  await lib.zstd.isLoaded;
  const root = lib.protobuf.Root.fromJSON({
    nested: {
      outside: {
        nested: {
          Inner: { fields: { label: { type: "string", id: 1 } } },
          Sample: {
            fields: {
              sequence: { type: "uint64", id: 1 },
              text: { type: "string", id: 2 },
              values: { rule: "repeated", type: "double", id: 3 },
              inner: { type: "Inner", id: 4 },
            },
          },
        },
      },
    },
  });
  const Sample = root.lookupType("outside.Sample");
  const descriptorSet = lib.descriptor.FileDescriptorSet.encode(root.toDescriptor("proto3")).finish();

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
    chunkSize: 4096,
    compressChunk: (data) => ({ compression: "zstd", compressedData: lib.zstd.compress(data) }),
  });
  await writer.start({ profile: "", library: "outside test" });
  const schemaId = await writer.registerSchema({
    name: "outside.Sample",
    encoding: "protobuf",
    data: descriptorSet,
  });
  const channels = [];
  for (const topic of ["/outside/a", "/outside/b"]) {
    channels.push(await writer.registerChannel({
      topic,
      schemaId,
      messageEncoding: "protobuf",
      metadata: new Map([["writer", "npm"]]),
    }));
  }
  const sent = [0, 0];
  for (let i = 0; i < MESSAGES; i++) {
    const c = i % 3 === 0 ? 1 : 0;
    const n = sent[c]++;
    const data = Sample.encode(Sample.fromObject({
      sequence: n,
      text: `node ${n}`,
      values: [n, n / 2],
      inner: { label: "x".repeat(i % 40) },
    })).finish();
    const time = 1700000000000000000n + BigInt(i) * 1000000n;
    await writer.addMessage({ channelId: channels[c], sequence: n, logTime: time, publishTime: time, data });
    if (i === 100) {
      await writer.addAttachment({
        name: "notes.txt", mediaType: "text/plain", logTime: time, createTime: time,
        data: new TextEncoder().encode("an attachment our reader skips"),
      });
      await writer.addMetadata({ name: "run", metadata: new Map([["site", "lab"]]) });
    }
  }
  await writer.end();
  const file = path.join(dir, "theirs.mcap");
  fs.writeFileSync(file, Buffer.concat(chunks));
  check(true, "written");

  let ok = true;
  try {
    run(fixture, ["check", file, String(MESSAGES)]);
  } catch (error) {
    ok = false;
  }
  check(ok, "our reader reads the npm writer's recording");
  finish();
}

main().catch((error) => {
  console.error(error);
  process.exit(1);
});
