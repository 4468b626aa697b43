// The cometd JavaScript client against servers that bound what clients may do: one whose
// anonymous clients may use /public only, one that needs signed tokens (HS256). A refusal
// reaches the refused client's callbacks with its 403 error and no one else's; a bad token
// ends the client's handshake with the one error and no retries.

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
const denied = (attempt, error) => assert.rejects(attempt, (failure) => (refusal(JSON.parse(failure.message), error), true));

for (const transport of ["long-polling", "websocket"]) {
    describe(`grants over ${transport}`, () => {
        let [listed, signed, folder] = [];
        const clients = [];
        before(async () => {
            folder = fs.mkdtempSync(path.join(os.tmpdir(), "korvane-token-"));
            fs.writeFileSync(path.join(folder, "secret"), `${secret}\n`);
            signed = await startServer({ args: ["--token-hmac-secret-file", path.join(folder, "secret")] });
            listed = await startServer({ args: ["--subscribe-allow", "/public/**", "--publish-allow", "/public/*"] });
        });
        after(async () => {
            await Promise.all(clients.map(disconnect));
            await Promise.all([signed.stop(), listed.stop()]);
            fs.rmSync(folder, { recursive: true });
        });
        const client = (server) => {
            const cometd = newClient(server.bayeux, transport);
            clients.push(cometd);
            return cometd;
        };

        // Which patterns pass, and that a refusal touches no one else, are the policy's and the protocol service's
        // to say; here, that the flags reach the server and each refusal its client's callbacks.
        test("a denied subscribe and publish fail with their errors and the client carries on", async () => {
            const [member, intruder] = [client(listed), client(listed)];
            await Promise.all([handshake(member), handshake(intruder)]);
            const heard = [];
            await subscribe(member, "/public/**", (message) => heard.push(message.data));
            await denied(subscribe(intruder, "/private/x", () => {}), "403:/private/x:subscription denied");
            await denied(publish(intruder, "/public/room/deeper", { n: 0 }), "403:/public/room/deeper:publish denied");
            // Still in good standing, the refused client is heard in the room; its denied publish went nowhere.
            await publish(intruder, "/public/room", { n: 1 });
            await until(() => heard.length === 1, 5000, "the allowed message");
            assert.deepEqual(heard, [{ n: 1 }]);
        });

        test("a bad token ends the handshake with the 403 error, once", async () => {
            const cometd = client(signed);
            const heard = [];
            cometd.addListener("/meta/handshake", (reply) => heard.push(reply));
            const forged = mint({ sub: "eve" }, "not the secret");
            await assert.rejects(handshake(cometd, { ext: { token: forged } }));
            await sleep(2000);
            assert.equal(heard.length, 1);
            refusal(heard[0], "403::invalid token");
            assert.equal(heard[0].advice?.reconnect, "none");
            const log = signed.output();
            assert.equal(log.match(/Handshake refused from [^:]*: bad signature/g)?.length, 1);
            assert.equal(log.includes(forged.split(".")[2]), false, "the token stays out of the log");
        });

        test("a good token works; its grants bound subscribes; a user's channel is theirs", async () => {
            const [ann, bob] = [client(signed), client(signed)];
            await handshake(ann, { ext: { token: mint({ sub: "ann", sub_channels: ["/rooms/**"], pub_channels: ["/rooms/*"] }) } });
            await handshake(bob, { ext: { token: mint({ sub: "bob", sub_channels: ["/user/**"], pub_channels: ["/user/*"] }) } });
            const heard = [];
            await subscribe(ann, "/user/ann", (message) => heard.push(message.data));
            await denied(subscribe(bob, "/user/ann", () => {}), "403:/user/ann:subscription denied");
            await publish(bob, "/user/ann", { from: "bob" });
            await until(() => heard.length === 1, 5000, "bob's message on ann's channel");
            assert.deepEqual(heard, [{ from: "bob" }]);
        });
    });
}
