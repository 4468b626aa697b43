// Measures what the Redis bridge costs: run by hand (node scripts/cluster-cost.mjs),
// not by the test runner. Two servers on one redis-server; a websocket client on each
// subscribes to a room and a client on B publishes into it at a steady pace. Prints
// the p50/p90 of publish-to-delivery on B (local) and on A (across Redis), and the
// CPU time each server used per message, next to a lone server under the same load.

import { readFileSync } from "node:fs";

import { startRedis, startServer } from "../tests/support/launch.mjs";
import { handshake, newClient, publish, sleep, subscribe, until } from "../tests/support/cometd.mjs";

const messages = Number(process.env.MEASURE_MESSAGES ?? 1000);
const pauseMs = Number(process.env.MEASURE_PAUSE_MS ?? 10);
const transport = process.env.MEASURE_TRANSPORT ?? "websocket";
const ticksPerSecond = 100;
const launch = (args) => startServer({ args: ["--threads", "1", ...args] });

// User plus system CPU seconds of a process so far.
function cpuSeconds(pid) {
    const fields = readFileSync(`/proc/${pid}/stat`, "utf8").split(") ")[1].split(" ");
    return (Number(fields[11]) + Number(fields[12])) / ticksPerSecond;
}

function percentile(values, p) {
    const sorted = [...values].sort((x, y) => x - y);
    return sorted[Math.min(sorted.length - 1, Math.floor((p / 100) * sorted.length))];
}

async function run(publisherServer, listenerServers) {
    const publisher = newClient(publisherServer.bayeux, transport);
    await handshake(publisher);
    const latencies = listenerServers.map(() => []);
    for (const [index, server] of listenerServers.entries()) {
        const listener = newClient(server.bayeux, transport);
        await handshake(listener);
        await subscribe(listener, "/measure", (message) => {
            latencies[index].push(Number(process.hrtime.bigint() - BigInt(message.data.sent)) / 1e6);
        });
    }
    const warm = async () => {
        await publish(publisher, "/measure", { sent: String(process.hrtime.bigint()) });
        await sleep(50);
    };
    for (let i = 0; i < 20 && latencies.some((list) => list.length === 0); ++i) {
        await warm();
    }
    latencies.forEach((list) => list.splice(0));
    const servers = [publisherServer, ...listenerServers.filter((server) => server !== publisherServer)];
    const cpuBefore = servers.map((server) => cpuSeconds(server.pid));
    for (let i = 0; i < messages; ++i) {
        await publish(publisher, "/measure", { sent: String(process.hrtime.bigint()), i });
        await sleep(pauseMs);
    }
    await until(() => latencies.every((list) => list.length >= messages), 30000, "every delivery");
    const cpu = servers.map((server, i) => ((cpuSeconds(server.pid) - cpuBefore[i]) / messages) * 1e6);
    return { latencies, cpu };
}

const report = (name, list) =>
    console.log(`${name}: p50 ${percentile(list, 50).toFixed(3)} ms, p90 ${percentile(list, 90).toFixed(3)} ms`);

const alone = await launch([]);
const baseline = await run(alone, [alone]);
report("lone server, local delivery", baseline.latencies[0]);
console.log(`lone server CPU: ${baseline.cpu[0].toFixed(1)} us per message`);
await alone.stop();

const redis = await startRedis();
const url = `redis://127.0.0.1:${redis.port}`;
const a = await launch(["--redis", url]);
const b = await launch(["--redis", url]);
const clustered = await run(b, [b, a]);
report("clustered, local delivery on B", clustered.latencies[0]);
report("clustered, delivery on A across Redis", clustered.latencies[1]);
console.log(`clustered CPU: B (publisher's server) ${clustered.cpu[0].toFixed(1)} us, A ${clustered.cpu[1].toFixed(1)} us per message`);
await a.stop();
await b.stop();
await redis.stop();
process.exit(0);
