// Starts the korvane-bayeux server for a test on a free loopback port and stops it.
// The server prints one line with the URL it serves; that line gives the port.

import { spawn } from "node:child_process";
import { fileURLToPath } from "node:url";
import path from "node:path";

const root = path.resolve(path.dirname(fileURLToPath(import.meta.url)), "../..");
export const serverBinary = process.env.KORVANE_SERVER ?? path.join(root, "build", "korvane-bayeux");

// `env` adds variables to the server's environment, or removes those it sets to undefined.
export async function startServer({ listen = "127.0.0.1:0", args = [], env = {} } = {}) {
    const environment = {
        ...process.env,
        ...(process.env.KORVANE_SERVER_ENV ? JSON.parse(process.env.KORVANE_SERVER_ENV) : {}),
        ...env,
    };
    for (const name of Object.keys(environment)) {
        if (environment[name] === undefined) delete environment[name];
    }
    const child = spawn(serverBinary, ["--listen", listen, "--heartbeat", "0", ...args], {
        stdio: ["ignore", "pipe", "pipe"],
        env: environment,
    });
    let stderr = "";
    child.stderr.on("data", (chunk) => {
        stderr += chunk;
    });
    const url = await new Promise((resolve, reject) => {
        let stdout = "";
        const timer = setTimeout(() => reject(new Error(`server did not start: ${stderr}`)), 10000);
        child.stdout.on("data", (chunk) => {
            stdout += chunk;
            const found = stdout.match(/(https?:\/\/[^\s]+)/);
            if (found) {
                clearTimeout(timer);
                resolve(found[1]);
            }
        });
        child.on("exit", (code) => {
            clearTimeout(timer);
            reject(new Error(`server exited with ${code}: ${stderr}`));
        });
    });
    const exited = new Promise((resolve) => child.on("exit", (code, signal) => resolve({ code, signal })));
    return {
        pid: child.pid,
        url,
        port: Number(new URL(url).port),
        bayeux: new URL("/bayeux", url).href,
        stderr: () => stderr,
        // Stops the server, by default as an operator does, and then checks that it exits
        // cleanly: a sanitizer build that found a fault exits otherwise.
        async stop(signal = "SIGTERM") {
            child.kill(signal);
            const ended = await exited;
            if (signal === "SIGTERM" && ended.code !== 0) {
                throw new Error(`server exited with ${ended.code ?? ended.signal}: ${stderr.slice(-4000)}`);
            }
            return ended;
        },
    };
}
