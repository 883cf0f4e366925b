// What a worker would be that drives a Chromium: node rival.js '<options as JSON>' opens the page and runs
// the worker's page scripts in it at the worker's pace, until it is killed. It writes no files.
import { readFileSync } from "node:fs";
import puppeteer from "puppeteer-core";

const options = JSON.parse(process.argv[2]);
const stateInterval = 1500;
const inboundInterval = 1000;

function readScripts() {
    const scripts = {};
    const constants = /string_view (\w+) = R"script\(([^]*?)\)script";/g;
    readFileSync(options.scripts, "utf8").replace(constants, (all, name, text) => {
        scripts[name] = text.split("__WATCHED_TITLE__").join(JSON.stringify(options.chat));
    });
    return scripts;
}

// A tick is left out while the one before still waits for the page.
function tickEvery(interval, tick) {
    let isWaiting = false;
    const finished = () => { isWaiting = false; };
    setInterval(() => {
        if (!isWaiting) {
            isWaiting = true;
            tick().finally(finished);
        }
    }, interval);
}

async function openPage() {
    const browser = await puppeteer.launch({
        executablePath: options.chromium,
        headless: true,
        defaultViewport: { width: 1200, height: 900 },
    });
    const [page] = await browser.pages();
    await page.goto(options.url);
    return page;
}

async function main() {
    const scripts = readScripts();
    const page = await openPage();
    let wasCapturing = false;
    tickEvery(stateInterval, async () => {
        await page.evaluate(scripts.qr_code);
        await page.evaluate(scripts.link_state);
    });
    tickEvery(inboundInterval, async () => {
        const activation = JSON.parse(await page.evaluate(scripts.chat_activation));
        if (activation.state !== "active") {
            return;
        }
        const answer = JSON.parse(await page.evaluate(scripts.inbound_capture));
        if (!wasCapturing && answer.activeChatTitle === options.chat) {
            wasCapturing = true;
            console.log("capturing, visible inbound messages: " + answer.visibleInboundCount);
        }
    });
}

main();
