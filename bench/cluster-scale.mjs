// Measures how a cluster scales (make bench-cluster; figures only, never a pass or a fail):
// 3 servers on 1 to 3 Redis shards, SCALE_USERS websocket clients each on a channel of its
// own plus SCALE_ROOMS rooms of SCALE_ROOM_SIZE members spread over the servers.
//  - fan-in, on 3 shards: SCALE_RATE publishes a second for SCALE_SECONDS, nine in ten to
//    a user, one in ten to a room, from a publisher on every server; the frames each
//    server received from Redis (its stop line) against what was published cluster-wide;
//    and the p50/p99 of publish-to-delivery of room messages on the publisher's server
//    and on the others;
//  - the same latency at rest: one publisher, one listener on its server and one on another;
//  - capacity, on 1, 2 and 3 shards: every publisher keeps SCALE_WINDOW publishes to
//    users in flight for SCALE_SECONDS; the deliveries a second, and the CPU share of the
//    busiest Redis (what bounds the cluster once the servers have cores of their own) and
//    the rate at which that Redis would reach a full core;
//  - the subscribe window: how often a channel is not yet subscribed in Redis when the
//    client gets its subscribe reply, and for how long.
// On a small machine scale the clients down, e.g. SCALE_USERS=600 SCALE_ROOM_SIZE=30.

import net from "node:net";

import { startRedis, startServer } from "../tests/support/launch.mjs";
import { disconnect, handshake, newClient, sleep, subscribe, until } from "../tests/support/cometd.mjs";

const env = (name, fallback) => Number(process.env[name] ?? fallback);
const users = env("SCALE_USERS", 3000);
const rooms = env("SCALE_ROOMS", 10);
const roomSize = env("SCALE_ROOM_SIZE", 100);
const rate = env("SCALE_RATE", 500);
const seconds = env("SCALE_SECONDS", 10);
const window = env("SCALE_WINDOW", 50);
const serverCount = 3;

const percentile = (values, p) => [...values].sort((x, y) => x - y)[Math.min(values.length - 1, Math.floor((p / 100) * values.length))] ?? NaN;
const now = () => Number(process.hrtime.bigint()) / 1e6;

function printLatency(title, latency) {
    console.log(`\n${title} (ms):\n| | p50 | p99 |\n|---|---|---|`);
    for (const kind of ["same", "cross"]) {
        console.log(`| ${kind}-server | ${percentile(latency[kind], 50).toFixed(2)} | ${percentile(latency[kind], 99).toFixed(2)} |`);
    }
    const added = (p) => (percentile(latency.cross, p) - percentile(latency.same, p)).toFixed(2);
    console.log(`| added cross over same | ${added(50)} | ${added(99)} |`);
}

// Handshakes and subscribes `count` clients, client k on server k % 3, in batches.
async function connect(servers, count, channelOf, onMessage) {
    const clients = [];
    for (let first = 0; first < count; first += 100) {
        const batch = Array.from({ length: Math.min(100, count - first) }, (_, j) => first + j);
        clients.push(...(await Promise.all(batch.map(async (k) => {
            const cometd = newClient(servers[k % serverCount].bayeux, "websocket");
            await handshake(cometd);
            await subscribe(cometd, channelOf(k), (message) => onMessage(k, message));
            return cometd;
        }))));
    }
    return clients;
}

async function startCluster(redises, shardCount, run) {
    const urls = redises.slice(0, shardCount).flatMap((redis) => ["--redis", `redis://127.0.0.1:${redis.port}`]);
    const servers = [];
    for (let s = 0; s < serverCount; ++s) servers.push(await startServer({ args: [...urls, "--redis-prefix", `scale-${run}:`] }));
    return servers;
}

// Stops the servers and reads the frames each received from Redis off its stop line.
async function stopCluster(servers) {
    const received = [];
    for (const server of servers) {
        await server.stop();
        received.push(Number(server.output().match(/messages out, (\d+) in/)[1]));
    }
    return received;
}

async function fanIn(redises) {
    const servers = await startCluster(redises, 3, "fan-in");
    const latency = { same: [], cross: [] };
    let delivered = 0;
    const onUser = () => ++delivered;
    const onRoom = (k, message) => {
        ++delivered;
        if (message.data.sent) latency[message.data.from === k % serverCount ? "same" : "cross"].push(now() - message.data.sent);
    };
    const clients = [
        ...(await connect(servers, users, (k) => `/user/${k}`, onUser)),
        ...(await connect(servers, rooms * roomSize, (k) => `/room/${k % rooms}`, onRoom)),
    ];
    const publishers = await Promise.all(servers.map(async (server) => {
        const cometd = newClient(server.bayeux, "websocket");
        await handshake(cometd);
        return cometd;
    }));
    await sleep(1000);
    let published = 0;
    const started = now();
    for (let n = 0; now() - started < seconds * 1000; ++n) {
        const from = n % serverCount;
        const toRoom = n % 10 === 0;
        const channel = toRoom ? `/room/${Math.floor(Math.random() * rooms)}` : `/user/${Math.floor(Math.random() * users)}`;
        publishers[from].publish(channel, toRoom ? { sent: now(), from } : { n });
        ++published;
        await sleep(Math.max(0, started + ((n + 1) * 1000) / rate - now()));
    }
    const elapsed = (now() - started) / 1000;
    await sleep(2000);
    await Promise.all([...clients, ...publishers].map(disconnect));
    const received = await stopCluster(servers);
    console.log(`\nfan-in, 3 servers on 3 shards, ${users} users and ${rooms} rooms of ${roomSize}:`);
    console.log("| | per second |\n|---|---|");
    console.log(`| published cluster-wide | ${(published / elapsed).toFixed(0)} |`);
    received.forEach((count, s) => console.log(`| received from Redis by server ${s} | ${(count / elapsed).toFixed(0)} |`));
    console.log(`| delivered to clients | ${(delivered / elapsed).toFixed(0)} |`);
    printLatency("room delivery latency under that load", latency);
}

async function latencyAtRest(redises, messages = 500) {
    const servers = await startCluster(redises, 3, "rest");
    const latency = { same: [], cross: [] };
    const listeners = await connect(servers, 2, () => "/rest", (k, message) => {
        if (message.data.sent) latency[k === 0 ? "same" : "cross"].push(now() - message.data.sent);
    });
    const publisher = newClient(servers[0].bayeux, "websocket");
    await handshake(publisher);
    for (let n = 0; n < messages; ++n) {
        publisher.publish("/rest", { sent: n < 20 ? 0 : now() });
        await sleep(5);
    }
    await sleep(500);
    await Promise.all([...listeners, publisher].map(disconnect));
    await stopCluster(servers);
    printLatency("latency at rest", latency);
}

// Seconds of CPU a redis-server used so far.
const redisCpu = async (redis) =>
    (await redis.cli("INFO", "cpu")).filter((line) => /^used_cpu_(user|sys):/.test(line)).reduce((sum, line) => sum + Number(line.split(":")[1]), 0);

async function capacity(redises, shardCount) {
    const servers = await startCluster(redises, shardCount, `capacity-${shardCount}`);
    let delivered = 0;
    const clients = await connect(servers, users, (k) => `/user/${k}`, () => ++delivered);
    const publishers = await Promise.all(servers.map(async (server) => {
        const cometd = newClient(server.bayeux, "websocket");
        await handshake(cometd);
        return cometd;
    }));
    await sleep(1000);
    const end = now() + seconds * 1000;
    delivered = 0;
    const cpuBefore = await Promise.all(redises.slice(0, shardCount).map(redisCpu));
    await Promise.all(publishers.map(async (publisher) => {
        let inFlight = 0;
        while (now() < end) {
            while (inFlight < window) {
                ++inFlight;
                publisher.publish(`/user/${Math.floor(Math.random() * users)}`, { n: 1 }, () => --inFlight);
            }
            await sleep(1);
        }
        await until(() => inFlight === 0, 30000, "the acknowledgements");
    }));
    const perSecond = delivered / seconds;
    const cpuAfter = await Promise.all(redises.slice(0, shardCount).map(redisCpu));
    const busiest = Math.max(...cpuAfter.map((cpu, k) => (cpu - cpuBefore[k]) / seconds));
    await Promise.all([...clients, ...publishers].map(disconnect));
    await stopCluster(servers);
    // The busiest instance bounds the cluster: at a full core of its own it would carry this many.
    return `${perSecond.toFixed(0)} | ${(busiest * 100).toFixed(0)}% | ${(perSecond / busiest).toFixed(0)}`;
}

// A bare RESP connection: `numsub(channel)` asks PUBSUB NUMSUB without a process per question.
async function redisAsker(port) {
    const socket = net.connect(port, "127.0.0.1");
    await new Promise((resolve) => socket.once("connect", resolve));
    const bulk = (text) => `$${Buffer.byteLength(text)}\r\n${text}\r\n`;
    return {
        numsub: (channel) => new Promise((resolve) => {
            socket.once("data", (reply) => resolve(Number(reply.toString().match(/:(\d+)\r\n$/)[1])));
            socket.write(`*3\r\n${bulk("PUBSUB")}${bulk("NUMSUB")}${bulk(channel)}`);
        }),
        close: () => socket.destroy(),
    };
}

async function subscribeWindow(redises, tries = 200) {
    const servers = await startCluster(redises, 3, "window");
    const askers = await Promise.all(redises.map((redis) => redisAsker(redis.port)));
    const inRedis = async (channel) => (await Promise.all(askers.map((asker) => asker.numsub(`scale-window:${channel}`)))).some(Boolean);
    const cometd = newClient(servers[0].bayeux, "websocket");
    await handshake(cometd);
    const late = [];
    for (let n = 0; n < tries; ++n) {
        await subscribe(cometd, `/window/${n}`, () => {});
        const replied = now();
        if (await inRedis(`/window/${n}`)) continue;
        while (!(await inRedis(`/window/${n}`))) await sleep(0);
        late.push(now() - replied);
    }
    console.log(`\nsubscribe window: ${late.length} of ${tries} subscriptions reached Redis after the client had its reply` +
        (late.length ? `, by at most ${Math.max(...late).toFixed(2)} ms` : ""));
    askers.forEach((asker) => asker.close());
    await disconnect(cometd);
    await stopCluster(servers);
}

const redises = [];
for (let k = 0; k < 3; ++k) redises.push(await startRedis());
await fanIn(redises);
await latencyAtRest(redises);
console.log("\npublishing capacity, 3 servers, publishes to users:\n| shards | deliveries per second | busiest Redis, share of a core | ceiling the busiest Redis sets, deliveries per second |\n|---|---|---|---|");
for (const shardCount of [1, 2, 3]) console.log(`| ${shardCount} | ${await capacity(redises, shardCount)} |`);
await subscribeWindow(redises);
for (const redis of redises) await redis.stop();
process.exit(0);
