// The server's HTTP side as a raw client sees it: what each request gets by its path, files,
// limits and origin; pipelined requests in order; a held connect streamed in chunks behind its
// headers and its broken connection; a clean stop; the connection limit; the cookie; HTTPS.

import { test } from "node:test";
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import fs from "node:fs";
import net from "node:net";
import os from "node:os";
import path from "node:path";
import tls from "node:tls";

import { startServer, withServer } from "../support/launch.mjs";
import { sleep, until } from "../support/cometd.mjs";

const request = (method, target, headers = {}, body = "") =>
    `${method} ${target} HTTP/1.1\r\nHost: 127.0.0.1\r\n` +
    Object.entries({ ...headers, ...(body ? { "Content-Length": body.length } : {}) }).map(([name, value]) => `${name}: ${value}\r\n`).join("") +
    `\r\n${body}`;
const post = (body, headers = {}) => request("POST", "/bayeux", { "Content-Type": "application/json", ...headers }, JSON.stringify(body));
const handshake = (id = "h", padding = "") => JSON.stringify([{ channel: "/meta/handshake", version: "1.0", id, ext: { padding } }]);

// The whole responses at the start of `text`: status, headers by lower-case name, body, chunks.
function parse(text, head = false) {
    const found = [];
    for (let end; (end = text.indexOf("\r\n\r\n")) >= 0; ) {
        const [statusLine, ...lines] = text.slice(0, end).split("\r\n");
        const headers = Object.fromEntries(lines.map((line) => [line.slice(0, line.indexOf(":")).toLowerCase(), line.slice(line.indexOf(":") + 1).trim()]));
        let rest = text.slice(end + 4);
        const chunks = [];
        if (headers["transfer-encoding"] === "chunked") {
            for (let size; (size = parseInt(rest, 16)) > 0; rest = rest.slice(rest.indexOf("\r\n") + size + 4)) {
                if (rest.length < rest.indexOf("\r\n") + size + 4) return found;
                chunks.push(rest.substr(rest.indexOf("\r\n") + 2, size));
            }
            if (!rest.startsWith("0\r\n\r\n")) return found;
            rest = rest.slice(5);
        } else {
            const length = head ? 0 : Number(headers["content-length"] ?? 0);
            if (rest.length < length) return found;
            chunks.push(rest.slice(0, length));
            rest = rest.slice(length);
        }
        found.push({ status: Number(statusLine.split(" ")[1]), headers, body: chunks.join(""), chunks });
        text = rest;
    }
    return found;
}

// A raw connection: what the server wrote so far, its whole responses once there are `count`, and its close.
function connect(port, secure = false) {
    const socket = secure ? tls.connect({ port, host: "127.0.0.1", rejectUnauthorized: false }) : net.connect(port, "127.0.0.1");
    const connection = { socket, text: "", send: (bytes) => socket.write(bytes) };
    connection.closed = new Promise((resolve) => socket.on("close", resolve));
    socket.setEncoding("latin1");
    socket.on("data", (data) => (connection.text += data)).on("error", () => {});
    connection.responses = async (count, head = false) => {
        await until(() => parse(connection.text, head).length >= count, 5000, `${count} responses`);
        return parse(connection.text, head);
    };
    return connection;
}
const exchange = async (port, method, target, headers = {}, body = "", secure = false) => {
    const connection = connect(port, secure);
    connection.send(request(method, target, headers, body));
    return (await connection.responses(1, method === "HEAD"))[0];
};
// Whether the server closes `connection` within `ms` without writing anything more.
const closedQuietly = (connection, ms) =>
    Promise.race([connection.closed.then(() => true), new Promise((resolve) => setTimeout(() => resolve(false), ms))]);

// A folder of static files, with a secret beside it and a link to the secret inside it.
function staticFolder() {
    const base = fs.mkdtempSync(path.join(os.tmpdir(), "korvane-http-"));
    const root = path.join(base, "www");
    for (const name of ["index.html", "app.js", "lib.mjs", "style.css", "data.json", "logo.png", "icon.svg", "favicon.ico",
        "notes.txt", "app.js.map", "blob.bin", "sub/index.html", "bayeux/index.html"]) {
        fs.mkdirSync(path.dirname(path.join(root, name)), { recursive: true });
        fs.writeFileSync(path.join(root, name), `content of ${name}`);
    }
    fs.writeFileSync(path.join(base, "secret.txt"), "secret");
    fs.symlinkSync(path.join(base, "secret.txt"), path.join(root, "leak.txt"));
    return { base, root };
}

test("each request is answered as its path, the files, the limits and its origin say", async () => {
    const folder = staticFolder();
    const server = await startServer({
        args: ["--static", folder.root, "--max-body", "1000", "--max-header", "2048", "--header-timeout", "1", "--allow-origin", "https://app.example"],
    });
    try {
        const slow = connect(server.port);
        slow.send("GET /index.html HTTP/1.1\r\nHost: 127.0.0.1\r\n");
        const app = await exchange(server.port, "GET", "/app.js");
        const [etag, modified] = [app.headers.etag, app.headers["last-modified"]];
        assert.ok(etag && modified);
        const [html, js] = ["text/html; charset=utf-8", "text/javascript; charset=utf-8"];
        const json = { "Content-Type": "application/json" };
        const listed = "https://app.example";
        const bounded = handshake("h", "x".repeat(1000 - handshake().length));
        const types = { "/lib.mjs": js, "/style.css": "text/css; charset=utf-8", "/data.json": "application/json", "/logo.png": "image/png",
            "/icon.svg": "image/svg+xml", "/favicon.ico": "image/x-icon", "/notes.txt": "text/plain; charset=utf-8",
            "/app.js.map": "application/json", "/blob.bin": "application/octet-stream", "/vendor/cometd/cometd.js": js };
        // Absent, or outside the folder: by a path, its escapes, a link, or the client library's folder.
        const missing = ["/missing.js", "/../secret.txt", "/sub/../../secret.txt", "/%2e%2e/secret.txt", "/sub/%2E%2E%2F%2e%2e%2fsecret.txt",
            "/leak.txt", "/vendor/cometd/../www/index.html", "/bad%zzescape"];
        // [method, target, headers, body, status, the headers expected (null: absent), the body expected]
        const rows = [
            // The Bayeux path, whole, to the transports and never to disk; a path that only starts like it is not it.
            ["GET", "/bayeux/index.html", {}, "", 400, {}, "Unknown Bayeux Transport"],
            ["GET", "/bayeuxfoo", {}, "", 404],
            ["POST", "/index.html", {}, "x", 405],
            // Limits: the body's and the header's, each at its bound and one past it.
            ["POST", "/bayeux", json, bounded, 200],
            ["POST", "/bayeux", json, bounded + " ", 413],
            ["POST", "/bayeux", { "Content-Length": 5000000 }, "", 413],
            ["POST", "/bayeux", { ...json, "X-Filler": "f".repeat(1900) }, handshake(), 200],
            ["POST", "/bayeux", { ...json, "X-Filler": "f".repeat(3000) }, handshake(), 431],
            // Files by their type, inside their folder only.
            ["GET", "/", {}, "", 200, { "content-type": html }, "content of index.html"],
            ["GET", "/index.html?v=2", {}, "", 200, { "content-type": html }, "content of index.html"],
            ["GET", "/sub/", {}, "", 200, { "content-type": html }, "content of sub/index.html"],
            ["GET", "/app.js", {}, "", 200, { "content-type": js, "content-length": "17" }, "content of app.js"],
            ...Object.entries(types).map(([target, type]) => ["GET", target, {}, "", 200, { "content-type": type }]),
            ["HEAD", "/app.js", {}, "", 200, { "content-length": "17" }, ""],
            ...missing.map((target) => ["GET", target, {}, "", 404]),
            // Conditional requests: a match of either validator, the tag winning when both are sent.
            ["GET", "/app.js", { "If-None-Match": etag }, "", 304, {}, ""],
            ["GET", "/app.js", { "If-None-Match": `"other", ${etag}` }, "", 304, {}, ""],
            ["GET", "/app.js", { "If-None-Match": '"other"' }, "", 200, {}, "content of app.js"],
            ["GET", "/app.js", { "If-Modified-Since": modified }, "", 304, {}, ""],
            ["GET", "/app.js", { "If-Modified-Since": "Thu, 01 Jan 1970 00:00:00 GMT" }, "", 200],
            ["GET", "/app.js", { "If-None-Match": '"other"', "If-Modified-Since": modified }, "", 200],
            // Cross-origin requests: a listed origin's preflight and requests are answered; another's go to the transports.
            ["OPTIONS", "/bayeux/handshake", { Origin: listed, "Access-Control-Request-Method": "POST", "Access-Control-Request-Headers": "x-custom" }, "", 204,
                { "access-control-allow-origin": listed, "access-control-allow-credentials": "true", "access-control-allow-methods": "POST, GET, OPTIONS",
                  "access-control-allow-headers": "x-custom", "access-control-max-age": "86400" }],
            ["OPTIONS", "/bayeux", { Origin: listed }, "", 204, { "access-control-allow-headers": "Content-Type" }],
            ["POST", "/bayeux", { ...json, Origin: listed }, handshake(), 200, { "access-control-allow-origin": listed, vary: "Origin" }],
            ["POST", "/bayeux", { ...json, Origin: "https://evil.example" }, handshake(), 200, { "access-control-allow-origin": null, vary: null }],
            ["OPTIONS", "/bayeux", { Origin: "https://evil.example" }, "", 400, {}, "Unknown Bayeux Transport"],
        ];
        for (const [method, target, headers, body, status, expected = {}, expectedBody] of rows) {
            const response = await exchange(server.port, method, target, headers, body);
            const what = `${method} ${target} ${JSON.stringify(headers).slice(0, 80)}`;
            assert.equal(response.status, status, what);
            for (const [name, value] of Object.entries(expected)) assert.equal(response.headers[name], value ?? undefined, `${what}: ${name}`);
            if (expectedBody !== undefined) assert.equal(response.body, expectedBody, what);
        }
        // A client that ends its side while a response too large for the socket's buffers is written still gets all of it.
        const big = 16 << 20;
        fs.writeFileSync(path.join(folder.root, "big.bin"), Buffer.alloc(big, "b"));
        const halfClosed = connect(server.port);
        halfClosed.socket.pause();
        halfClosed.send(request("GET", "/big.bin"));
        await sleep(200);
        halfClosed.socket.end();
        await sleep(200);
        halfClosed.socket.resume();
        assert.equal((await halfClosed.responses(1))[0].body.length, big);
        const malformed = connect(server.port);
        malformed.send("NOT A REQUEST\r\n\r\n");
        assert.equal((await malformed.responses(1))[0].status, 400);
        assert.equal(await closedQuietly(slow, 5000), true, "a trickled request holds its connection");
    } finally {
        await server.stop();
        fs.rmSync(folder.base, { recursive: true });
    }
});

test("pipelined requests are answered in order, a held connect streams in chunks behind its headers", () =>
    withServer({}, async (server) => {
        const steady = connect(server.port);
        steady.send(post([{ channel: "/meta/handshake", id: "1" }]) + post([{ channel: "/meta/handshake", id: "2" }]) + request("GET", "/bayeux?jsonp=x"));
        const [first, second, third] = await steady.responses(3);
        assert.deepEqual([first, second].map((response) => [response.headers["transfer-encoding"], JSON.parse(response.body)[0].id]), [[undefined, "1"], [undefined, "2"]]);
        assert.equal(third.status, 400);
        const clientId = JSON.parse(first.body)[0].clientId;
        steady.send(request("POST", "/bayeux", {}, "x"));
        assert.equal((await steady.responses(4))[3].status, 500, "and the connection stays open");
        steady.send(request("POST", "/bayeux", { Expect: "100-continue", "Content-Length": handshake().length }));
        assert.equal((await steady.responses(5))[4].status, 100);
        steady.send(handshake());
        assert.equal((await steady.responses(6))[5].status, 200, "the body is read after the go-ahead");

        steady.send(post([{ channel: "/meta/subscribe", clientId, subscription: "/room" }]));
        await steady.responses(7);
        // A request pipelined behind a held connect waits for it.
        const connectBody = [{ channel: "/meta/connect", clientId, connectionType: "long-polling", advice: { timeout: 30000 } }];
        const held = connect(server.port);
        held.send(post(connectBody) + request("GET", "/bayeux/next"));
        await until(() => held.text.includes("\r\n\r\n"), 5000, "the held connect's headers");
        assert.match(held.text, /^HTTP\/1\.1 200 OK\r\n[^]*Content-Type: application\/json;charset=UTF-8\r\n[^]*Transfer-Encoding: chunked\r\n\r\n$/);
        steady.send(post([{ channel: "/meta/handshake" }]));
        const [{ clientId: publisher }] = JSON.parse((await steady.responses(8))[7].body);
        // More messages than the server asks for ahead of the socket, more bytes than one write takes.
        const burst = Array.from({ length: 70 }, (_, n) => ({ channel: "/room", clientId: publisher, data: { n, pad: "p".repeat(1500) } }));
        steady.send(post(burst));
        const [stream, next] = await held.responses(2);
        const delivered = JSON.parse(stream.body);
        assert.deepEqual(delivered.map((message) => message.data?.n ?? message.channel), [...burst.keys(), "/meta/connect"]);
        assert.equal(stream.chunks.length, 71, "one chunk per message");
        assert.equal(next.status, 400);

        // The server stops cleanly with a connect held and an idle connection open.
        connect(server.port).send(post(connectBody));
    }));

test("connections beyond the limit are closed at once; once one goes, a new one is served", () =>
    withServer({ args: ["--max-connections", "2"] }, async (server) => {
        const [first, second] = [connect(server.port), connect(server.port)];
        for (const connection of [first, second]) {
            connection.send(request("GET", "/bayeux"));
            await connection.responses(1);
        }
        assert.equal(await closedQuietly(connect(server.port), 5000), true);
        first.socket.destroy();
        let served;
        for (const end = Date.now() + 5000; !served && Date.now() < end; ) {
            const retry = connect(server.port);
            retry.send(request("GET", "/bayeux"));
            served = await Promise.race([retry.responses(1).then(() => true, () => false), retry.closed.then(() => false)]);
        }
        assert.equal(served, true);
    }));

test("each browser gets a session cookie once, marked Secure over HTTPS", async () => {
    const folder = fs.mkdtempSync(path.join(os.tmpdir(), "korvane-tls-"));
    const [cert, key] = [path.join(folder, "cert.pem"), path.join(folder, "key.pem")];
    execFileSync("openssl", ["req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2",
        "-subj", "/CN=127.0.0.1", "-keyout", key, "-out", cert], { stdio: "ignore" });
    const plain = await startServer();
    const secure = await startServer({ args: ["--tls-cert", cert, "--tls-key", key] });
    try {
        const cookieOf = async (headers = {}) => (await exchange(plain.port, "GET", "/bayeux", headers)).headers["set-cookie"];
        const cookie = await cookieOf();
        assert.match(cookie, /^korvane-browser=[0-9a-f]{32}; Path=\/; HttpOnly; SameSite=Lax$/);
        const session = cookie.slice("korvane-browser=".length, cookie.indexOf(";"));
        assert.equal(await cookieOf({ Cookie: `theme=dark; korvane-browser=${session}` }), undefined);
        // A forged value is not taken: a new session is given (which values pass is the cookie parser's to say).
        assert.doesNotMatch(await cookieOf({ Cookie: "korvane-browser=not-a-session" }), new RegExp(session));

        assert.match(secure.url, /^https:\/\/127\.0\.0\.1:\d+\/$/);
        assert.match((await exchange(secure.port, "GET", "/bayeux", {}, "", true)).headers["set-cookie"], /; Secure$/);
        await assert.rejects(startServer({ args: ["--tls-cert", cert, "--tls-key", `${key}.missing`] }), /exited with 1/);
    } finally {
        await Promise.all([plain.stop(), secure.stop()]);
        fs.rmSync(folder, { recursive: true });
    }
});

test("a long-polling client whose held connect's connection broke loses nothing published meanwhile", () =>
    withServer({}, async (server) => {
        const post = async (message, signal) =>
            (await fetch(server.bayeux, { method: "POST", headers: { "content-type": "application/json" }, body: JSON.stringify([message]), signal })).json();
        const [listener, talker] = [(await post({ channel: "/meta/handshake", version: "1.0" }))[0].clientId, (await post({ channel: "/meta/handshake", version: "1.0" }))[0].clientId];
        await post({ channel: "/meta/connect", clientId: listener, connectionType: "long-polling", advice: { timeout: 0 } });
        await post({ channel: "/meta/subscribe", clientId: listener, subscription: "/room" });
        // The server's own count of held connects says when it holds the connect and when it saw the connection go.
        const heldConnects = async () => Number((await (await fetch(new URL("/metrics", server.url))).text()).match(/^korvane_connects_held (\d+)$/m)[1]);
        const untilHeld = async (count) => {
            for (const end = Date.now() + 5000; (await heldConnects()) !== count; await sleep(10)) {
                if (Date.now() > end) throw new Error(`timed out waiting for ${count} held connects`);
            }
        };
        const broken = new AbortController();
        const held = post({ channel: "/meta/connect", clientId: listener, connectionType: "long-polling" }, broken.signal).catch(() => "broken");
        await untilHeld(1);
        broken.abort();
        assert.equal(await held, "broken");
        await untilHeld(0);
        await post({ channel: "/room", clientId: talker, data: { n: 1 } });
        const next = await post({ channel: "/meta/connect", clientId: listener, connectionType: "long-polling" });
        assert.deepEqual(next.map((message) => message.channel), ["/room", "/meta/connect"]);
        assert.deepEqual(next[0].data, { n: 1 });
    }));

test("one connection's held connects each get the head their own request calls for", () =>
    withServer({ args: ["--allow-origin", "https://app.example"] }, async (server) => {
        const connection = connect(server.port);
        connection.send(post([{ channel: "/meta/handshake", version: "1.0" }]));
        const [shaken] = await connection.responses(1);
        const [cookie, { clientId }] = [shaken.headers["set-cookie"].split(";")[0], JSON.parse(shaken.body)[0]];
        const connectFor = (timeout) => [{ channel: "/meta/connect", clientId, connectionType: "long-polling", advice: { timeout } }];
        // [the connect's own headers, the fields its head must have (null: absent)]; each is held, then streamed.
        const rows = [
            [{}, { "set-cookie": /^korvane-browser=[0-9a-f]{32};/, "access-control-allow-origin": null }],
            [{ Cookie: cookie }, { "set-cookie": null }],
            [{ Cookie: cookie, Origin: "https://app.example" }, { "access-control-allow-origin": "https://app.example", vary: "Origin", "set-cookie": null }],
            [{ Cookie: cookie }, { "access-control-allow-origin": null, vary: null }],
            [{ Cookie: cookie }, { "access-control-allow-origin": null, vary: null }],
            [{ Cookie: cookie, Connection: "close" }, { connection: "close" }],
        ];
        const heads = [];
        for (const [index, [headers, expected]] of rows.entries()) {
            connection.send(post(connectFor(100), headers));
            heads.push((await connection.responses(index + 2))[index + 1].headers);
            const head = heads[index];
            for (const [name, value] of Object.entries({ "transfer-encoding": "chunked", ...expected })) {
                const ok = value instanceof RegExp ? value.test(head[name] ?? "") : head[name] === (value ?? undefined);
                assert.ok(ok, `connect ${index} with ${JSON.stringify(headers)}: ${name} is ${head[name]}`);
            }
        }
        assert.deepEqual(heads[4], heads[3], "the same request, the same head");
        assert.equal(await closedQuietly(connection, 5000), true, "closed after the connect that asked for it");
    }));
