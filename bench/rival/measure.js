// Measures worker_bench and a worker on Chromium in turns, on the same page with the same scripts:
// npm run measure [-- rounds]; npm run measure -- growth [count]... for so many of them beside each other,
// as a table for growth.gnuplot. README.md tells what is needed.
import { execFile, spawn } from "node:child_process";
import { chownSync, existsSync, mkdtempSync, readdirSync, readFileSync, rmSync } from "node:fs";
import http from "node:http";
import { tmpdir } from "node:os";
import path from "node:path";
import { promisify } from "node:util";

// npm runs it here.
const here = process.cwd();
const source = path.resolve(process.env.BRINDLE_SOURCE || path.join(here, "..", ".."));
const build = path.join(source, "build", "release");
const pageScripts = "rooms/worker/scripts/include/worker/PageScripts.h";
const chromium = process.env.CHROMIUM || "/usr/bin/chromium";
// A Chromium does not start as root without switching its sandbox off.
const nobody = 65534;
const settlingTime = 5000;
const measuringTime = 20000;
const ticksPerSecond = 100;
const kibibytesPerMebibyte = 1024;

const sleep = (milliseconds) => new Promise((done) => { setTimeout(done, milliseconds); });

// The chat and the changes of bench/SamplePage.cpp.
function pageScript(changesASecond) {
    return `for (let i = 0; i < 300; ++i) {
        const text = 'Entry ' + i + ': the van is loaded, all of the banners are in it 🚐';
        if (i % 3 === 2) { sampleWebClient.send('Bench Room', text); } else {
            sampleWebClient.receive({ chat: 'Bench Room', sender: i % 3 ? 'Ann Lee' : 'Bo Nilsson', text });
        }
    }
    sampleWebClient.openChat('Bench Room');
    const changed = document.querySelector('#main .message:last-child .meta').firstChild;
    let number = 0;
    setInterval(() => { changed.data = 'now ' + (++number); }, ${1000 / changesASecond});`;
}

function servePage(script) {
    const types = { ".html": "text/html; charset=utf-8", ".css": "text/css", ".js": "text/javascript" };
    const server = http.createServer((request, response) => {
        const name = path.basename(request.url.split("?")[0]);
        const file = path.join(source, "examples", "web-client", name);
        if (!types[path.extname(name)] || !existsSync(file)) {
            response.writeHead(404).end();
            return;
        }
        const ready = "sampleWebClient.state().phase === 'chats'";
        const begin = `<script>(function begin() { if (!(${ready})) { return void setTimeout(begin, 10); }
            ${script} }());</script>`;
        response.writeHead(200, { "Content-Type": types[path.extname(name)] });
        response.end(readFileSync(file, "utf8") + (name.endsWith(".html") && script ? begin : ""));
    });
    return new Promise((done) => { server.listen(0, "127.0.0.1", () => done(server)); });
}

function readProcess(pid) {
    try {
        const stat = readFileSync(`/proc/${pid}/stat`, "utf8");
        // The name stands in parentheses and may hold anything.
        const fields = stat.slice(stat.lastIndexOf(")") + 2).split(" ");
        const memory = /^Pss: +(\d+)/m.exec(readFileSync(`/proc/${pid}/smaps_rollup`, "utf8"));
        return {
            pid: Number(pid),
            parent: Number(fields[1]),
            session: Number(fields[3]),
            seconds: (Number(fields[11]) + Number(fields[12])) / ticksPerSecond,
            mebibytes: memory ? Number(memory[1]) / kibibytesPerMebibyte : 0,
        };
    } catch (error) {
        return null;
    }
}

// Some of a browser's processes leave their parents, others the session.
function treeOf(root) {
    const all = readdirSync("/proc").filter((name) => /^\d+$/.test(name)).map(readProcess).filter(Boolean);
    const tree = new Map(all.filter((each) => each.session === root).map((each) => [each.pid, each]));
    let known = -1;
    while (known !== tree.size) {
        known = tree.size;
        all.filter((each) => tree.has(each.parent)).forEach((each) => tree.set(each.pid, each));
    }
    return tree;
}

async function costOf(root) {
    const before = treeOf(root);
    const begin = process.hrtime.bigint();
    await sleep(measuringTime);
    const elapsed = Number(process.hrtime.bigint() - begin) / 1e9;
    const cost = { mebibytes: 0, percent: 0 };
    treeOf(root).forEach((each) => {
        const earlier = before.get(each.pid);
        cost.mebibytes += each.mebibytes;
        cost.percent += 100 * (each.seconds - (earlier ? earlier.seconds : 0)) / elapsed;
    });
    return cost;
}

function untilCapturing(rival) {
    return new Promise((done, fail) => {
        rival.stdout.once("data", done);
        rival.once("exit", (status) => fail(new Error("The rival has ended with status " + status + ".")));
    });
}

async function startRival({ chat, script, parameters }) {
    const server = await servePage(script);
    const home = mkdtempSync(path.join(tmpdir(), "rival-"));
    chownSync(home, nobody, nobody);
    const options = JSON.stringify({
        chat,
        chromium,
        scripts: path.join(build, pageScripts),
        url: `http://127.0.0.1:${server.address().port}/index.html?${parameters}`,
    });
    const rival = spawn(process.execPath, [path.join(here, "rival.js"), options], {
        detached: true,
        env: { ...process.env, HOME: home, TMPDIR: home, XDG_CONFIG_HOME: home, XDG_CACHE_HOME: home },
        gid: nobody,
        stdio: ["ignore", "pipe", "inherit"],
        uid: nobody,
    });
    return { pid: rival.pid, home, server, isCapturing: untilCapturing(rival) };
}

function kill(pid) {
    try {
        process.kill(pid, "SIGKILL");
    } catch (error) {
        // It has ended with another one, meanwhile.
        if (error.code !== "ESRCH") {
            throw error;
        }
    }
}

async function end({ pid, home, server }) {
    treeOf(pid).forEach((each) => kill(each.pid));
    server.close();
    await sleep(500);
    rmSync(home, { recursive: true, force: true });
}

function sum(costs) {
    return costs.reduce((left, right) => ({
        mebibytes: left.mebibytes + right.mebibytes,
        percent: left.percent + right.percent,
    }));
}

async function measureRivals(each, count) {
    const rivals = [];
    try {
        while (rivals.length < count) {
            rivals.push(await startRival(each));
        }
        await Promise.all(rivals.map((rival) => rival.isCapturing));
        await sleep(settlingTime);
        return sum(await Promise.all(rivals.map((rival) => costOf(rival.pid))));
    } finally {
        await Promise.all(rivals.map(end));
    }
}

async function measureWorker({ workerArguments }) {
    const run = promisify(execFile)(path.join(build, "bench", "worker_bench"), workerArguments);
    // Its status tells only whether its own bounds hold.
    const { stdout } = await run.catch((error) => error);
    const [, mebibytes, percent] = /whole tree +([\d.]+) +([\d.]+)/.exec(stdout);
    return { mebibytes: Number(mebibytes), percent: Number(percent) };
}

async function measureWorkers(each, count) {
    return sum(await Promise.all(Array.from({ length: count }, () => measureWorker(each))));
}

const common = "loading=0&scan=0&renew=3600&traffic=none";
const cases = [
    { name: "at rest", chat: "Team Room", script: "", parameters: common, workerArguments: [] },
    {
        name: "10 changes a second, 300 messages",
        chat: "Bench Room",
        script: pageScript(10),
        parameters: common + "&rendered=300",
        workerArguments: ["10"],
    },
];

const median = (values) => [...values].sort((left, right) => left - right)[Math.floor(values.length / 2)];

function print(what, worker, rival) {
    const row = ["mebibytes", "percent"].map((key) => {
        const ours = median(worker.map((each) => each[key]));
        const theirs = median(rival.map((each) => each[key]));
        return `${key} ${ours.toFixed(2)} / ${theirs.toFixed(2)} = ${(ours / theirs).toFixed(2)}`;
    });
    console.log(`${what}: ${row.join(", ")}`);
}

async function compare(each, rounds) {
    const worker = [];
    const rival = [];
    for (let round = 0; round < rounds; round += 1) {
        worker.push(await measureWorkers(each, 1));
        rival.push(await measureRivals(each, 1));
    }
    print(each.name, worker, rival);
}

async function growth(each, counts) {
    console.log("# helpers, worker MiB, rival MiB, worker %, rival %");
    for (const count of counts) {
        const worker = await measureWorkers(each, count);
        const rival = await measureRivals(each, count);
        const figures = [worker.mebibytes, rival.mebibytes, worker.percent, rival.percent];
        console.log([count, ...figures.map((figure) => figure.toFixed(2))].join("\t"));
    }
}

async function main() {
    if (process.getuid() !== 0) {
        throw new Error("Only root may read how much memory the processes of a sandbox take.");
    }
    if (process.argv[2] === "growth") {
        const counts = process.argv.slice(3).map(Number);
        await growth(cases[0], counts.length ? counts : [1, 2, 4, 8]);
        return;
    }
    console.log("worker / rival, both sandboxed");
    for (const each of cases) {
        await compare(each, Number(process.argv[2] || 3));
    }
}

main();
