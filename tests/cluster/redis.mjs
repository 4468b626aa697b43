// Runs a throw-away redis-server on a free loopback port for a test, and finds out
// whether there is one to run at all.

import { spawn, spawnSync } from "node:child_process";
import net from "node:net";

export const redisBinary = process.env.KORVANE_REDIS_SERVER ?? "redis-server";

// Null when redis-server can be run, otherwise why it cannot.
export function redisMissing() {
    const probe = spawnSync(redisBinary, ["--version"], { encoding: "utf8" });
    return probe.error ? `${redisBinary} not found (${probe.error.code}); install redis-server to run these tests` : null;
}

export function freePort() {
    return new Promise((resolve, reject) => {
        const probe = net.createServer();
        probe.once("error", reject);
        probe.listen(0, "127.0.0.1", () => {
            const { port } = probe.address();
            probe.close(() => resolve(port));
        });
    });
}

// Starts redis-server without persistence; `password` turns on requirepass.
export async function startRedis({ port, password } = {}) {
    port ??= await freePort();
    const args = ["--port", String(port), "--bind", "127.0.0.1", "--save", "", "--appendonly", "no"];
    if (password) {
        args.push("--requirepass", password);
    }
    const child = spawn(redisBinary, args, { stdio: ["ignore", "pipe", "pipe"] });
    let output = "";
    await new Promise((resolve, reject) => {
        const timer = setTimeout(() => reject(new Error(`redis-server did not start: ${output}`)), 10000);
        const onData = (chunk) => {
            output += chunk;
            if (output.includes("Ready to accept connections")) {
                clearTimeout(timer);
                resolve();
            }
        };
        child.stdout.on("data", onData);
        child.stderr.on("data", onData);
        child.on("exit", (code) => {
            clearTimeout(timer);
            reject(new Error(`redis-server exited with ${code}: ${output}`));
        });
    });
    const exited = new Promise((resolve) => child.on("exit", resolve));
    return {
        port,
        async stop(signal = "SIGKILL") {
            child.kill(signal);
            await exited;
        },
    };
}
