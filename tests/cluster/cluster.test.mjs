// Three korvane-bayeux servers sharing their channels through two redis-server shards,
// with the cometd client on each: delivery across servers on both transports to exactly
// the holders of a channel, no echo and no duplicates, subscriptions in Redis that follow
// the local holders, a shard going away and back, and a shard list that differs. The
// orchestrator's probes: /healthz answers while the process serves, /readyz while every
// shard is heard.

import { after, before, describe, test } from "node:test";
import assert from "node:assert/strict";
import { randomBytes } from "node:crypto";
import { spawnSync } from "node:child_process";
import net from "node:net";

import { serverBinary, startRedis, startServer } from "../support/launch.mjs";
import { disconnect, handshake, newClient, publish, sleep, subscribe, unsubscribe, until } from "../support/cometd.mjs";

const clients = [];
const client = async (server, transport = "long-polling") => {
    const cometd = newClient(server.bayeux, transport);
    clients.push(cometd);
    await handshake(cometd);
    return cometd;
};
const clusterWarnings = (server) => server.output().split("\n").filter((line) => line.includes("[korvane::cluster]"));
// "<status> <text>" of /healthz and /readyz, then the bridge's gauges in /metrics as "up/shards".
const health = async (server) => {
    const answers = await Promise.all(["/healthz", "/readyz", "/metrics"].map(async (path) => {
        const response = await fetch(new URL(path, server.url));
        return `${response.status} ${await response.text()}`;
    }));
    const gauge = (name) => answers[2].match(new RegExp(`^${name} (\\d+)$`, "m"))?.[1];
    return `${answers[0]}${answers[1]}${gauge("korvane_redis_up")}/${gauge("korvane_redis_shards")}`;
};
// Resolves once the asynchronous `condition()` holds, asking every 50 ms; fails with `what` after `ms`.
const eventually = async (condition, ms, what) => {
    for (const end = Date.now() + ms; !(await condition()); await sleep(50)) assert.ok(Date.now() < end, what);
};

describe("servers sharing channels through Redis shards", () => {
    const password = `pw-${randomBytes(6).toString("hex")}`;
    const prefix = `korvane-test-${randomBytes(3).toString("hex")}:`;
    const shards = [];
    const servers = {};
    const startClustered = (urls, env = {}) =>
        startServer({ args: [...urls.flatMap((url) => ["--redis", url]), "--redis-prefix", prefix], env });
    // How many servers subscribe to `channel` in Redis, and the shards that carry it.
    const inRedis = async (channel) => {
        const counts = await Promise.all(shards.map(async (shard) => Number((await shard.cli("PUBSUB", "NUMSUB", prefix + channel))[1])));
        return { servers: counts.reduce((x, y) => x + y), on: counts.flatMap((count, shard) => (count ? [shard] : [])) };
    };
    const patternCounts = () => Promise.all(shards.map(async (shard) => Number((await shard.cli("PUBSUB", "NUMPAT"))[0])));

    before(async () => {
        for (let k = 0; k < 2; ++k) shards.push(await startRedis({ password }));
        const bases = shards.map((shard) => `127.0.0.1:${shard.port}`);
        servers.a = await startClustered(bases.map((base) => `redis://:${password}@${base}`));
        servers.b = await startClustered(bases.map((base) => `redis://${base}`), { KORVANE_REDIS_PASSWORD: password });
        servers.c = await startClustered(bases.map((base) => `redis://:${password}@${base}/0`));
        const ready = async (server) => (await health(server)).includes("200 ready");
        for (const server of Object.values(servers)) await eventually(() => ready(server), 15000, `${server.url} not ready within 15 s`);
    });
    after(async () => {
        await Promise.all(clients.map(disconnect));
        for (const server of Object.values(servers)) await server.stop();
        for (const shard of shards) await shard.stop();
    });

    for (const transport of ["long-polling", "websocket"]) {
        test(`over ${transport}: a message reaches the holders of its channel once, as sent, and no one else, for exact channels and both wildcards`, async () => {
            const t = `/t/${transport}`;
            // Server a holds an exact channel and, in another session, a wildcard that Redis sends it too.
            // The publisher on b holds the exact channel and a witness next to it sees it locally. c's Redis
            // glob for /one/* covers /one/x/y, its pattern does not. Each channel with the holders it reaches:
            const holders = [["a", "/exact"], ["a", "/**"], ["c", "/one/*"], ["c", "/deep/**"], ["b", "/exact"], ["b", "/exact"]];
            const publishes = [["/exact", [0, 1, 5]], ["/one/x", [1, 2]], ["/one/x/y", [1]], ["/deep/x/y", [1, 3]], ["/elsewhere", [1]]];
            const [seen, on] = [holders.map(() => []), []];
            for (const [index, [server, pattern]] of holders.entries()) {
                on.push(await client(servers[server], transport));
                await subscribe(on[index], t + pattern, (message) => seen[index].push(message));
            }
            const data = { text: "héllo \u2028 \"world\"", n: 1.5e300, list: [null, true, { deep: [] }] };
            for (const [channel] of publishes) await publish(on[4], t + channel, data);
            // Sorted: channels on different shards keep no order between them.
            const expected = holders.map((_, index) => publishes.filter(([, to]) => to.includes(index)).map(([channel]) => t + channel).sort());
            await until(() => seen.every((list, index) => list.length >= expected[index].length), 5000, "the deliveries");
            await sleep(300);
            assert.deepEqual(seen.map((list) => list.map((message) => message.channel).sort()), expected);
            // The wildcard holder's first arrival may come from another shard: compare the /exact copies.
            const exactOf = (list) => list.find((message) => message.channel === t + "/exact");
            const local = exactOf(seen[5]);
            for (const message of [exactOf(seen[0]), exactOf(seen[1])]) {
                assert.deepEqual([message.data, message.clientId, message.id], [data, local.clientId, local.id], "as a local subscriber sees it");
            }
        });
    }

    test("Redis holds a subscription by its reply, once per server however many hold it, until the last leaves", async () => {
        const patternsBefore = await patternCounts();
        const [holders, talker] = [[await client(servers.a), await client(servers.a)], await client(servers.b)];
        // A message published on another server right after the subscribe reply arrives.
        const seen = [];
        for (let n = 0; n < 20; ++n) {
            await subscribe(holders[0], `/t/fresh/${n}`, (message) => seen.push(message.data.n));
            await publish(talker, `/t/fresh/${n}`, { n });
        }
        await until(() => seen.length === 20, 5000, `all 20 messages, got ${seen}`);
        const handles = [await subscribe(holders[0], "/t/leave", () => {}), await subscribe(holders[1], "/t/leave", () => {})];
        await subscribe(holders[1], "/t/leave/*", () => {});
        assert.equal((await inRedis("/t/leave")).servers, 1, "in Redis by the time the subscribe is acknowledged");
        assert.deepEqual((await patternCounts()).map((count, k) => count - patternsBefore[k]), [1, 1], "a wildcard on every shard");
        await unsubscribe(holders[0], handles[0]);
        await sleep(300);
        assert.equal((await inRedis("/t/leave")).servers, 1, "another holder is left");
        await disconnect(holders[1]);
        await eventually(async () => (await inRedis("/t/leave")).servers === 0, 3000, "the last holder's leaving did not unsubscribe");
        assert.deepEqual(await patternCounts(), patternsBefore, "nor the wildcard's");
    });

    test("while a shard is away only its channels stop crossing; they resume on their own, in order", async () => {
        const [listener, neighbour, remote] = [await client(servers.a), await client(servers.a), await client(servers.b)];
        const [seen, shardChannels] = [{}, []];
        for (let k = 0; shardChannels.filter(Boolean).length < 2; ++k) {
            const channel = `/shard/${k}`;
            seen[channel] = [];
            await subscribe(listener, channel, (message) => seen[channel].push(message.data.n));
            shardChannels[(await inRedis(channel)).on[0]] ??= channel;
        }
        const [alive, away] = shardChannels;
        const warningsBefore = clusterWarnings(servers.a).length;

        await shards[1].stop();
        await publish(neighbour, away, { n: -1 });
        let n = 0;
        while (n < 5) {
            await publish(remote, away, { n });
            await publish(remote, alive, { n: n++ });
        }
        await until(() => seen[alive].length === 5, 3000, "the other shard's messages");
        await sleep(1500);
        assert.deepEqual(seen[away], [-1], "only the local delivery while its shard is away");
        assert.equal(clusterWarnings(servers.a).length - warningsBefore, 1, "one warning for the outage, not one per attempt");
        assert.equal(await health(servers.a), "200 serving\n503 not connected to Redis\n1/2", "alive while not ready");

        shards[1] = await startRedis({ port: shards[1].port, password });
        const firstAfter = n;
        const resuming = async () => (await publish(remote, away, { n: n++ }), seen[away].some((value) => value >= firstAfter));
        await eventually(resuming, 15000, "delivery did not resume within 15 s");
        const resumed = n;
        while (n < resumed + 20) await publish(remote, away, { n: n++ });
        await until(() => seen[away].includes(n - 1), 5000, "the messages after the restart");
        await sleep(200);
        assert.ok(seen[away].every((value, k) => k === 0 || value > seen[away][k - 1]), `in order, no duplicates: ${seen[away]}`);
        assert.deepEqual(seen[away].filter((value) => value >= resumed), Array.from({ length: 20 }, (_, k) => resumed + k), "nothing lost once back");
        assert.equal(await health(servers.a), "200 serving\n200 ready\n2/2");
        for (const server of Object.values(servers)) assert.ok(!server.output().includes(password), "the password is never logged");
    });

    test("a server whose shard list differs from the one recorded in the shards refuses to start", () => {
        const reversed = [...shards].reverse().flatMap((shard) => ["--redis", `redis://:${password}@127.0.0.1:${shard.port}`]);
        const run = spawnSync(serverBinary, ["--listen", "127.0.0.1:0", ...reversed, "--redis-prefix", prefix], { encoding: "utf8", timeout: 10000 });
        const lines = run.stderr.split("\n").filter((line) => line !== "");
        assert.deepEqual([run.status, lines.length], [2, 1], run.stderr);
        assert.match(lines[0], /the --redis list \(.+\) differs from the one recorded in 127\.0\.0\.1:\d+\/0 under .*shards \(.+\)$/);
        assert.ok(!lines[0].includes(password));
    });
});

test("a Redis that accepts connections and never answers holds up no publisher; what overflows the buffer is dropped with one counted warning", async () => {
    const sockets = new Set();
    const silent = net.createServer((socket) => sockets.add(socket.on("error", () => {})));
    await new Promise((resolve) => silent.listen(0, "127.0.0.1", resolve));
    const server = await startServer({ args: ["--redis", `redis://127.0.0.1:${silent.address().port}`, "--redis-buffer", "10"] });
    const [listener, publisher] = [await client(server), await client(server)];
    assert.equal(await health(server), "200 serving\n503 not connected to Redis\n0/1", "never ready before Redis answers");
    const seen = [];
    await subscribe(listener, "/busy/room", (message) => seen.push(message.data.n));
    const started = Date.now();
    for (let n = 0; n < 50; ++n) await publish(publisher, "/busy/room", { n });
    await until(() => seen.length === 50, 3000, "the local deliveries");
    assert.ok(Date.now() - started < 3000, "publishing waited for Redis");
    // The first refusal is reported at once, with its count; later ones wait for the next warning, ten seconds on.
    await until(() => clusterWarnings(server).length > 0, 3000, "the warning");
    await sleep(500);
    assert.deepEqual(clusterWarnings(server).map((line) => line.replace(/^.*\[korvane::cluster\]/, "")), [
        " 256: Cluster buffer full: messages for Redis are being dropped; messages dropped since the last warning: 1",
    ]);
    await Promise.all([disconnect(listener), disconnect(publisher)]);
    await server.stop();
    sockets.forEach((socket) => socket.destroy());
    await new Promise((resolve) => silent.close(resolve));
});

test("a lone server is ready as soon as it serves", async () => {
    const server = await startServer();
    assert.equal(await health(server), "200 serving\n200 ready\nundefined/undefined");
    await server.stop();
});
