// The cometd JavaScript client against a server that needs signed tokens (HS256): a good
// token in the handshake's ext works end to end, a bad one ends the client's handshake
// with the one 403 error and no retries, and the token's grants bound what it may do.

import { after, before, describe, test } from "node:test";
import assert from "node:assert/strict";
import crypto from "node:crypto";
import fs from "node:fs";
import os from "node:os";
import path from "node:path";

import { startServer } from "../support/launch.mjs";
import { disconnect, handshake, newClient, publish, sleep, subscribe, until } from "../support/cometd.mjs";

const secret = crypto.randomBytes(32).toString("hex");

function mint(claims, key = secret) {
    const encode = (part) => Buffer.from(JSON.stringify(part)).toString("base64url");
    const signed = `${encode({ alg: "HS256", typ: "JWT" })}.${encode({ exp: Math.floor(Date.now() / 1000) + 600, ...claims })}`;
    return `${signed}.${crypto.createHmac("sha256", key).update(signed).digest("base64url")}`;
}

const refusal = (reply, error) => assert.deepEqual([reply.successful, reply.error], [false, error]);

for (const transport of ["long-polling", "websocket"]) {
    describe(`signed tokens over ${transport}`, () => {
        let server;
        let folder;
        const clients = [];
        before(async () => {
            folder = fs.mkdtempSync(path.join(os.tmpdir(), "korvane-token-"));
            fs.writeFileSync(path.join(folder, "secret"), `${secret}\n`);
            server = await startServer({ args: ["--token-hmac-secret-file", path.join(folder, "secret")] });
        });
        after(async () => {
            await Promise.all(clients.map(disconnect));
            await server.stop();
            fs.rmSync(folder, { recursive: true });
        });
        const client = () => {
            const cometd = newClient(server.bayeux, transport);
            clients.push(cometd);
            return cometd;
        };

        test("a bad token ends the handshake with the 403 error, once", async () => {
            const cometd = client();
            const heard = [];
            cometd.addListener("/meta/handshake", (reply) => heard.push(reply));
            const forged = mint({ sub: "eve" }, "not the secret");
            await assert.rejects(handshake(cometd, { ext: { token: forged } }));
            await sleep(2000);
            assert.equal(heard.length, 1);
            refusal(heard[0], "403::invalid token");
            assert.equal(heard[0].advice?.reconnect, "none");
            const log = server.output();
            assert.equal(log.match(/Handshake refused from [^:]*: bad signature/g)?.length, 1);
            assert.equal(log.includes(forged.split(".")[2]), false, "the token stays out of the log");
        });

        test("a good token works; its grants bound subscribes and publishes; a user's channel is theirs", async () => {
            const [ann, bob] = [client(), client()];
            await handshake(ann, { ext: { token: mint({ sub: "ann", sub_channels: ["/rooms/**"], pub_channels: ["/rooms/*"] }) } });
            await handshake(bob, { ext: { token: mint({ sub: "bob", sub_channels: ["/user/**"], pub_channels: ["/user/*"] }) } });
            const heard = [];
            await subscribe(ann, "/user/ann", (message) => heard.push(message.data));

            await assert.rejects(subscribe(bob, "/user/ann", () => {}), (error) => {
                refusal(JSON.parse(error.message), "403:/user/ann:subscription denied");
                return true;
            });
            await assert.rejects(publish(ann, "/elsewhere", { n: 0 }), (error) => {
                refusal(JSON.parse(error.message), "403:/elsewhere:publish denied");
                return true;
            });
            await publish(bob, "/user/ann", { from: "bob" });
            await until(() => heard.length === 1, 5000, "bob's message on ann's channel");
            assert.deepEqual(heard, [{ from: "bob" }]);
        });
    });
}
