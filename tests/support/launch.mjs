// The processes of the loopback suites: the korvane-bayeux server and a throw-away
// redis-server, each on a free loopback port, each stopped by the test that started it.

import { execFile, spawn } from "node:child_process";
import { fileURLToPath } from "node:url";
import net from "node:net";
import path from "node:path";

const root = path.resolve(path.dirname(fileURLToPath(import.meta.url)), "../..");
export const serverBinary = process.env.KORVANE_SERVER ?? path.join(root, "build", "korvane-bayeux");
const redisBinary = process.env.KORVANE_REDIS_SERVER ?? "redis-server";

// Spawns `binary` and resolves once its output matches `ready`, with the match, the
// child, all it wrote so far (`output()`, and `errors()` of standard error alone) and a
// promise of its exit.
async function launch(binary, args, ready, env = process.env) {
    const child = spawn(binary, args, { stdio: ["ignore", "pipe", "pipe"], env });
    let output = "";
    let errors = "";
    child.stderr.on("data", (chunk) => (errors += chunk));
    const exited = new Promise((resolve) => child.on("exit", (code, signal) => resolve({ code, signal })));
    const match = await new Promise((resolve, reject) => {
        const timer = setTimeout(() => reject(new Error(`${binary} did not start: ${output}`)), 10000);
        const onData = (chunk) => {
            output += chunk;
            const found = output.match(ready);
            if (found) {
                clearTimeout(timer);
                resolve(found);
            }
        };
        child.stdout.on("data", onData);
        child.stderr.on("data", onData);
        const failed = (why) => {
            clearTimeout(timer);
            reject(new Error(`${binary} ${why} (scripts/install-deps installs what the tests run): ${output}`));
        };
        child.on("error", (error) => failed(`did not run: ${error.code}`));
        child.on("exit", (code) => failed(`exited with ${code}`));
    });
    return { child, match, exited, output: () => output, errors: () => errors };
}

// `env` adds variables to the server's environment, or removes those it sets to undefined.
export async function startServer({ listen = "127.0.0.1:0", args = [], env = {} } = {}) {
    const environment = { ...process.env, ...JSON.parse(process.env.KORVANE_SERVER_ENV ?? "{}"), ...env };
    for (const name of Object.keys(environment)) {
        if (environment[name] === undefined) delete environment[name];
    }
    const server = await launch(serverBinary, ["--listen", listen, "--heartbeat", "0", ...args], /https?:\/\/\S+/, environment);
    const url = server.match[0];
    return {
        pid: server.child.pid,
        url,
        port: Number(new URL(url).port),
        bayeux: new URL("/bayeux", url).href,
        // What the server wrote so far, on stdout and stderr, and on stderr alone.
        output: server.output,
        errors: server.errors,
        // Stops the server as an operator does, by default, and checks that it exits
        // cleanly: a sanitizer build that found a fault exits otherwise.
        async stop(signal = "SIGTERM") {
            server.child.kill(signal);
            const ended = await server.exited;
            if (signal === "SIGTERM" && ended.code !== 0) {
                throw new Error(`server exited with ${ended.code ?? ended.signal}: ${server.output().slice(-4000)}`);
            }
        },
    };
}

// Runs `body` with a server started with `options`, which is stopped however the body ends.
export async function withServer(options, body) {
    const server = await startServer(options);
    try {
        return await body(server);
    } finally {
        await server.stop();
    }
}

function freePort() {
    return new Promise((resolve, reject) => {
        const probe = net.createServer().once("error", reject);
        probe.listen(0, "127.0.0.1", () => {
            const { port } = probe.address();
            probe.close(() => resolve(port));
        });
    });
}

// Starts redis-server without persistence; `password` turns on requirepass. `cli(...args)`
// runs one command through redis-cli and resolves with its output lines.
export async function startRedis({ port, password } = {}) {
    port ??= await freePort();
    const args = ["--port", String(port), "--bind", "127.0.0.1", "--save", "", "--appendonly", "no"];
    const redis = await launch(redisBinary, password ? [...args, "--requirepass", password] : args, /Ready to accept connections/);
    const login = password ? ["-a", password, "--no-auth-warning"] : [];
    return {
        port,
        cli: (...command) =>
            new Promise((resolve, reject) =>
                execFile("redis-cli", ["-p", String(port), ...login, ...command], (error, stdout) =>
                    error ? reject(error) : resolve(stdout.split("\n").filter((line) => line !== "")))),
        async stop() {
            redis.child.kill("SIGKILL");
            await redis.exited;
        },
    };
}
