// The Debian packages that `cpack -G DEB` made in KORVANE_PACKAGES: what each holds and
// needs, and the server unpacked from its package into a scratch root, serving from there
// alone, with its systemd unit verified.

import { after, test } from "node:test";
import assert from "node:assert/strict";
import { execFileSync, spawnSync } from "node:child_process";
import { appendFileSync, cpSync, existsSync, mkdtempSync, readdirSync, rmSync } from "node:fs";
import os from "node:os";
import path from "node:path";

const packages = process.env.KORVANE_PACKAGES;
const debOf = (name) => path.join(packages, readdirSync(packages).find((file) => file.startsWith(`${name}_`) && file.endsWith(".deb")));

// The scratch root, and the server in it as the one the loopback suites start.
const root = mkdtempSync(path.join(os.tmpdir(), "korvane-package-"));
after(() => rmSync(root, { recursive: true, force: true }));
execFileSync("dpkg-deb", ["-x", debOf("korvane-bayeux"), root]);
process.env.KORVANE_SERVER = path.join(root, "usr/bin/korvane-bayeux");
const { withServer } = await import("../support/launch.mjs");
const { disconnect, handshake, newClient } = await import("../support/cometd.mjs");

// Package, files it holds, paths it must not hold, a dependency it declares.
const packageTable = [
    ["korvane-bayeux",
     ["usr/bin/korvane-bayeux", "usr/lib/libkorvane_bayeux.so.0", "usr/share/korvane-bayeux/web/index.html",
      "usr/share/korvane-bayeux/cometd/cometd.js", "usr/lib/systemd/system/korvane-bayeux.service", "etc/default/korvane-bayeux"],
     /usr\/include\//, /libboost-log1\.74\.0/],
    ["libkorvane-bayeux-dev",
     ["usr/include/korvane/bayeux.h", "usr/include/korvane/export.h", "usr/include/korvane/host/bayeux_host.h",
      "usr/lib/libkorvane_bayeux.so", "usr/lib/libkorvane_host.a", "usr/lib/cmake/korvane_bayeux/korvane_bayeuxConfig.cmake"],
     /bin\/|korvane\/cluster\/|host\/token\/|host\/http_connection\.h|codec\/utf8\.h/, /korvane-bayeux \(= /],
];

for (const [name, held, foreign, dependency] of packageTable) {
    test(`${name} holds its files and declares its dependencies`, () => {
        const files = execFileSync("dpkg-deb", ["-c", debOf(name)], { encoding: "utf8" })
            .split("\n").map((line) => line.split(/\s+/)[5]?.replace(/^\.\//, "")).filter(Boolean);
        for (const file of held) assert.ok(files.includes(file), `${name} lacks ${file}`);
        assert.deepEqual(files.filter((file) => foreign.test(file)), [], `${name} holds what is not its own`);
        assert.match(execFileSync("dpkg-deb", ["-f", debOf(name), "Depends"], { encoding: "utf8" }), dependency);
    });
}

test("the unpacked server serves its own page, the client library and a handshake, and stops on SIGTERM", () => {
    // A page of this root only: a server that found another one would not serve the mark.
    appendFileSync(path.join(root, "usr/share/korvane-bayeux/web/index.html"), "<!-- unpacked -->\n");
    return withServer({}, async (server) => {
        for (const [page, content] of [["/", /<!-- unpacked -->/], ["/vendor/cometd/cometd.js", /export \* from "\.\/Client\.js"/]]) {
            const response = await fetch(new URL(page, server.url));
            assert.equal(response.status, 200, page);
            assert.match(await response.text(), content, page);
        }
        const client = newClient(server.bayeux, "long-polling");
        await handshake(client);
        await disconnect(client);
    });
});

test("the systemd unit passes systemd-analyze verify", () => {
    // The units systemd ships, which ours needs (sysinit.target and on), beside it in the root.
    const units = path.join(root, "usr/lib/systemd/system");
    cpSync(["/usr/lib/systemd/system", "/lib/systemd/system"].find(existsSync), units, { recursive: true, force: false });
    const verified = spawnSync("systemd-analyze", ["verify", "--root", root, path.join(units, "korvane-bayeux.service")],
                               { encoding: "utf8" });
    assert.equal(verified.status, 0, verified.stderr);
    assert.equal(verified.stderr, "");
});
