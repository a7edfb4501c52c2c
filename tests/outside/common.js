"use strict";
// Loading of the outside readers, shared by the scripts here. A missing node_modules makes
// the test skip (exit 77) with a message saying how to install them.
const fs = require("fs");
const { execFileSync } = require("child_process");

const SKIP = 77;

function load() {
  try {
    return {
      core: require("@mcap/core"),
      support: require("@mcap/support"),
      protobuf: require("protobufjs"),
      descriptor: require("protobufjs/ext/descriptor"),
      crc32: require("@foxglove/crc").crc32,
      zstd: require("@foxglove/wasm-zstd"),
    };
  } catch (error) {
    console.log(
      `SKIPPED: the npm outside readers are not installed (${error.code || error.message}); ` +
        "scripts/setup installs them into tests/outside/node_modules",
    );
    process.exit(SKIP);
  }
}

// A random-access view of a file for McapIndexedReader.
function readable(bytes) {
  return {
    size: async () => BigInt(bytes.length),
    read: async (offset, size) => bytes.subarray(Number(offset), Number(offset + size)),
  };
}

function run(program, args) {
  execFileSync(program, args, { stdio: "inherit" });
}

// `what` is a text, or a function giving it (for texts that are costly to build).
let passed = 0;
let failures = 0;
function check(condition, what) {
  if (condition) {
    passed += 1;
  } else {
    failures += 1;
    console.error(`FAIL: ${typeof what === "function" ? what() : what}`);
  }
}
function finish() {
  console.log(`${passed} passed, ${failures} failed`);
  process.exit(failures === 0 && passed > 0 ? 0 : 1);
}

module.exports = { load, readable, run, check, finish, fs };
