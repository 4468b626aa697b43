// The server's WebSocket end as a raw client sees it: the close code of each frame it
// cannot take (the others on the server serve on), the message limit at its bound, the
// browser cookie on the upgrade, the origins it lets upgrade, and the close when the
// server stops. Fragments and control frames are the host's tests'.

import { test } from "node:test";
import assert from "node:assert/strict";
import { once } from "node:events";
import WebSocket from "ws";

import { withServer } from "../support/launch.mjs";

const limit = 2000;
const handshake = (padding = "") => JSON.stringify([{ channel: "/meta/handshake", version: "1.0", ext: { padding } }]);

// An open socket to the server and the replies it got; `reply()` resolves with the next one.
async function open(server, headers = {}) {
    const socket = new WebSocket(server.bayeux.replace(/^http/, "ws"), { headers });
    const replies = [];
    socket.on("message", (data) => replies.push(...JSON.parse(data))).on("error", () => {});
    const response = await new Promise((resolve) => {
        socket.once("upgrade", (upgrade) => socket.once("open", () => resolve(upgrade)));
        socket.once("unexpected-response", (request, refusal) => resolve(refusal));
    });
    const reply = async (seen = replies.length) => {
        while (replies.length === seen) await new Promise((resolve) => setTimeout(resolve, 5));
        return replies[seen];
    };
    return { socket, response, reply };
}

test("each frame the server cannot take closes only its own socket, with the code of the fault", () =>
    withServer({ args: ["--max-ws-message", String(limit), "--allow-origin", "https://app.example"] }, async (server) => {
        const bystander = await open(server);
        const bound = handshake("x".repeat(limit - handshake().length));
        const cases = [
            ["{not json", 1011],
            [Buffer.from('[{"channel":"/meta/handshake","ext":"\xff"}]', "latin1"), 1007],  // not UTF-8 in its bytes
            ['[{"channel":"/a\\udc00"}]', 1007],  // nor once its escape is decoded
            [bound + " ", 1009],
        ];
        for (const [frame, code] of cases) {
            const peer = await open(server);
            peer.socket.send(bound);
            assert.equal((await peer.reply()).successful, true, "a message of the limit is taken");
            peer.socket.send(frame);
            assert.equal((await once(peer.socket, "close"))[0], code, String(frame));
            bystander.socket.send(handshake());
            assert.equal((await bystander.reply()).successful, true, "the others serve on");
        }

        // The browser cookie: set on an upgrade without it, kept on one with it.
        const cookie = bystander.response.headers["set-cookie"][0];
        assert.match(cookie, /^korvane-browser=[0-9a-f]{32}; Path=\/; HttpOnly; SameSite=Lax$/);
        const returning = await open(server, { Cookie: cookie.split(";")[0] });
        assert.equal(returning.response.headers["set-cookie"], undefined);

        // Which origins pass is the origin policy's to say; here, that the upgrade asks it with the server's own host.
        const origins = [[new URL(server.url).origin, 101], ["https://app.example", 101], ["http://127.0.0.1:1", 403]];
        for (const [origin, status] of origins) {
            const { socket, response } = await open(server, { Origin: origin });
            assert.equal(response.statusCode, status, origin);
            socket.terminate();
        }
        const closed = once(returning.socket, "close");
        await server.stop();
        assert.equal((await closed)[0], 1001, "a stopping server says it is going away");
    }));
