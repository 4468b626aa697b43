// The probes of an orchestrator: /healthz answers while the process serves; /readyz
// follows the Redis bridge through a start without Redis, its arrival, loss and return.

import { test } from "node:test";
import assert from "node:assert/strict";

import { startRedis, startServer } from "../support/launch.mjs";
import { sleep } from "../support/cometd.mjs";

async function probe(server, path) {
    const response = await fetch(new URL(path, server.url));
    return [response.status, await response.text()];
}

// Polls /readyz until it answers `status`; the bridge retries Redis up to every 5 s.
async function readyzBecomes(server, status, what) {
    let last;
    for (const end = Date.now() + 12000; Date.now() < end; await sleep(100)) {
        last = await probe(server, "/readyz");
        if (last[0] === status) return last;
    }
    assert.fail(`/readyz did not answer ${status} ${what}: ${last}`);
}

// The bridge's gauges in /metrics, as "up/shards".
async function redisGauges(server) {
    const [, text] = await probe(server, "/metrics");
    const value = (name) => text.match(new RegExp(`^${name} (\\d+)$`, "m"))?.[1];
    return `${value("korvane_redis_up")}/${value("korvane_redis_shards")}`;
}

test("a lone server is ready as soon as it serves", async () => {
    const server = await startServer();
    try {
        assert.deepEqual(await probe(server, "/healthz"), [200, "serving\n"]);
        assert.deepEqual(await probe(server, "/readyz"), [200, "ready\n"]);
    } finally {
        await server.stop();
    }
});

test("a clustered server is ready only while its bridge hears Redis", async () => {
    let redis = await startRedis();
    const { port } = redis;
    await redis.stop();
    const server = await startServer({ args: ["--redis", `redis://127.0.0.1:${port}`] });
    try {
        assert.deepEqual(await probe(server, "/readyz"), [503, "not connected to Redis\n"]);
        assert.deepEqual(await probe(server, "/healthz"), [200, "serving\n"], "alive while not ready");
        assert.equal(await redisGauges(server), "0/1");

        redis = await startRedis({ port });
        assert.deepEqual(await readyzBecomes(server, 200, "once Redis came"), [200, "ready\n"]);
        assert.equal(await redisGauges(server), "1/1");
        await redis.stop();
        assert.deepEqual(await readyzBecomes(server, 503, "once Redis went"), [503, "not connected to Redis\n"]);
        redis = await startRedis({ port });
        await readyzBecomes(server, 200, "once Redis came back");
    } finally {
        await server.stop();
        await redis.stop();
    }
});
