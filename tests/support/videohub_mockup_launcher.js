#!/usr/bin/env node
// Starts the Videohub mockup server of @bitfocusas/mockup-bmd-videohub (npm)
// where a test wants it. Its own program reads PORT and IO from the
// environment but turns PORT=0 into 9990, listens on every interface, and
// announces the port it was asked for rather than the one it got; its
// package.json "main" names a file the package does not ship. So this loads
// the module behind its "bin" and starts it itself.
//
//   node videohub_mockup_launcher.js --package DIR [--io N] [--port P] [--host H]
//
// DIR is the installed package (…/node_modules/@bitfocusas/mockup-bmd-videohub).
// Once listening it prints "videohub mockup listening on HOST:PORT" (the
// real port, so --port 0 works) after the package's own log lines. It ends
// on SIGTERM or SIGINT, and when its standard input closes: a test killed
// before it could stop the mockup leaves no server behind.
"use strict";

const fs = require("node:fs");
const net = require("node:net");
const path = require("node:path");

function usage(message) {
  process.stderr.write(`${message}\nusage: videohub_mockup_launcher.js --package DIR [--io N] [--port P] [--host H]\n`);
  process.exit(2);
}

const options = { package: null, io: "12", port: "0", host: "127.0.0.1" };
const args = process.argv.slice(2);
for (let i = 0; i < args.length; i += 2) {
  const name = args[i].replace(/^--/, "");
  if (!(name in options) || i + 1 >= args.length) usage(`bad argument: ${args[i]}`);
  options[name] = args[i + 1];
}
if (!options.package) usage("--package is required");
const io = Number(options.io);
const port = Number(options.port);
if (!Number.isInteger(io) || io < 1) usage(`--io must be a positive integer: ${options.io}`);
if (!Number.isInteger(port) || port < 0 || port > 65535) usage(`--port must be 0..65535: ${options.port}`);

const manifest = JSON.parse(fs.readFileSync(path.join(options.package, "package.json"), "utf8"));
const mockup = require(path.resolve(options.package, manifest.bin["mockup-bmd-videohub"]));

// startServer() only takes a port; without a host Node listens on every
// interface, which a test has no business doing on a shared machine.
const listen = net.Server.prototype.listen;
net.Server.prototype.listen = function (requested, callback) {
  net.Server.prototype.listen = listen;
  return listen.call(this, requested, options.host, callback);
};

mockup.init(io);
const server = mockup.startServer(port);
server.on("listening", () => {
  const address = server.address();
  console.log(`videohub mockup listening on ${address.address}:${address.port}`);
});
server.on("error", (error) => {
  console.error(`videohub mockup: ${error.message}`);
  process.exit(1);
});

const end = () => process.exit(0);
process.on("SIGTERM", end);
process.on("SIGINT", end);
process.stdin.on("end", end);
process.stdin.on("error", end);
process.stdin.resume();
