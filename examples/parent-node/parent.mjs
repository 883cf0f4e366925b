#!/usr/bin/env node
// A parent application in small: it shows the messages of one chat and sends what is typed.
//
//     parent.mjs [--helper PATH] [--state DIRECTORY] CHAT-ID CHAT-TITLE
//
// Messages go to standard output, everything else to standard error. Which worker the helper runs, the environment says
// (docs/embedding.md). The end of the input, Ctrl-C or SIGTERM ends it. It needs Node.js 18 and nothing else.

import { spawn } from 'node:child_process';
import { randomBytes } from 'node:crypto';
import { once } from 'node:events';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { parseArgs } from 'node:util';

const usage = 'usage: parent.mjs [--helper PATH] [--state DIRECTORY] CHAT-ID CHAT-TITLE';
const platform = 'whatsapp';
const bridgeVersion = 'managed-whatsapp-backend-3';
// The helper's exit status when it does not take the launch token: trying again does not help.
const refusedStatus = 64;
// States of the worker that are final for this helper. A fresh helper starts a fresh worker.
const lostWorkerStates = ['exited', 'launch_failed'];
const lookMs = 1000;
const endMs = 10000;
const firstPauseMs = 1000;
const longestPauseMs = 60000;
// Whoever has run for so long has not failed at once.
const goodRunMs = 60000;
// What a terminal obeys, and what turns the reading direction. Messages come from strangers.
// eslint-disable-next-line no-control-regex
const unshowable = /[\x00-\x09\x0b-\x1f\x7f-\x9f\u061c\u200e\u200f\u2028-\u202e\u2066-\u2069]/g;

const shown = text => text.replace(unshowable, '?').replaceAll('\n', '\n    ');
const say = text => process.stderr.write(`${shown(text)}\n`);

/** What no further try can mend. */
class GivenUp extends Error {}

/**
 * Calls `take` with every line of a stream. Only a line feed ends a line: node:readline would also end one at
 * characters that stand within messages.
 */
function eachLine(stream, take) {
    let pieces = [];
    stream.on('data', data => {
        let begin = 0;
        for (let end; (end = data.indexOf(0x0a, begin)) >= 0; begin = end + 1) {
            pieces.push(data.subarray(begin, end));
            take(Buffer.concat(pieces).toString());
            pieces = [];
        }
        pieces.push(data.subarray(begin));
    });
    stream.on('end', () => {
        const rest = Buffer.concat(pieces).toString();
        if (rest) take(rest);
    });
}

/**
 * The messages that came in, one JSON document a line: this application's database. The helper delivers a message twice
 * rather than never, so what is here already is not taken again.
 */
class Journal {
    constructor(file) {
        this.descriptor = fs.openSync(file, fs.constants.O_RDWR | fs.constants.O_CREAT, 0o600);
        const content = fs.readFileSync(this.descriptor);
        // A crash in the middle of a line leaves a part of it.
        this.end = content.lastIndexOf('\n') + 1;
        fs.ftruncateSync(this.descriptor, this.end);
        const lines = content.subarray(0, this.end).toString().split('\n').slice(0, -1);
        this.known = new Set(lines.map(line => JSON.parse(line).messageId));
    }

    /** Whether the message is new. It is on the disk when this returns. */
    add(event) {
        if (this.known.has(event.messageId)) return false;
        this.end += fs.writeSync(this.descriptor, `${JSON.stringify(event)}\n`, this.end);
        fs.fsyncSync(this.descriptor);
        this.known.add(event.messageId);
        return true;
    }
}

/** One life of the helper, from its launch token to its end. */
class Helper {
    constructor(program, state, onEnvelope) {
        this.isGreeted = false;
        this.start = performance.now();
        this.tokenFile = path.join(state, 'launch-token');
        this.process = spawn(program, ['--platform', platform], {
            env: { ...process.env, ...this.makeToken(), BRINDLE_MANAGED_BRIDGE_DATA_DIR: path.join(state, 'data') },
            // Ctrl-C is for us alone; we end the helper in order.
            detached: true,
        });
        // Both streams are read all the time, each without waiting for the other.
        eachLine(this.process.stdout, line => onEnvelope(this, JSON.parse(line)));
        eachLine(this.process.stderr, line => say(`helper| ${line}`));
        // A helper that is gone shows by its end; what it has not read is not known then.
        this.process.stdin.on('error', () => {});
        // Its end, and the end of both streams.
        const giveUp = problem => {
            throw new GivenUp(`The helper cannot be started: ${problem.message}; name it with --helper.`);
        };
        this.ended = once(this.process, 'close')
            .then(([status, signal]) => (signal === null ? status : signal), giveUp)
            // Not earlier: the built-in worker reads it too, after the helper has greeted.
            .finally(() => fs.rmSync(this.tokenFile, { force: true }));
    }

    /** A fresh secret for each start, which nobody else can read. */
    makeToken() {
        const token = randomBytes(32).toString('hex');
        fs.rmSync(this.tokenFile, { force: true });
        fs.writeFileSync(this.tokenFile, token, { mode: 0o600, flag: 'wx' });
        return { BRINDLE_HELPER_LAUNCH_TOKEN: token, BRINDLE_HELPER_LAUNCH_TOKEN_FILE: this.tokenFile };
    }

    request(name, fields = {}) {
        this.process.stdin.write(`${JSON.stringify({ [name]: { _0: { platform, ...fields } } })}\n`);
    }

    milliseconds() {
        return performance.now() - this.start;
    }

    /** Closes the helper's input, lets the rest be read, and returns the exit status or the signal that ended it. */
    async end() {
        this.process.stdin.end();
        const kill = signal => this.process.kill(signal);
        const timers = [setTimeout(kill, endMs, 'SIGTERM'), setTimeout(kill, 2 * endMs, 'SIGKILL')];
        try {
            return await this.ended;
        } finally {
            timers.forEach(clearTimeout);
        }
    }
}

class Parent {
    constructor(program, state, chatId, title) {
        this.program = program;
        this.state = state;
        this.chatId = chatId;
        this.scope = { conversation: { id: chatId, title } };
        this.journal = new Journal(path.join(state, 'messages.jsonl'));
        this.unsent = [];
        this.mustEnd = new Promise(resolve => { this.requestEnd = resolve; });
    }

    async run() {
        for (const signal of ['SIGINT', 'SIGTERM', 'SIGHUP']) process.on(signal, () => this.requestEnd());
        eachLine(process.stdin, line => this.take(line.trim()));
        process.stdin.on('end', () => this.requestEnd());
        for (let pauseMs = firstPauseMs; ; pauseMs = Math.min(2 * pauseMs, longestPauseMs)) {
            const isOver = await this.serve();
            if (isOver) break;
            const status = await this.helper.end();
            if (status === refusedStatus) throw new GivenUp('The helper does not take our launch token.');
            if (this.helper.milliseconds() > goodRunMs) pauseMs = firstPauseMs;
            say(`The helper has ended with status ${status}; it is started again in ${pauseMs / 1000} s.`);
            if (await this.wait(pauseMs)) break;
        }
        // What was typed is still sent.
        this.sendTyped();
        await this.helper.end();
        process.stdin.destroy();
    }

    /** Starts a helper and works with it until it is of no use any more. Whether we are to end. */
    async serve() {
        this.worker = null;
        this.words = [];
        this.helper = new Helper(this.program, this.state, (helper, envelope) => this.hear(helper, envelope));
        let look;
        const isLost = new Promise(resolve => {
            look = setInterval(() => { if (this.helper.isGreeted && this.workerIsLost()) resolve(false); }, lookMs);
        });
        try {
            return await Promise.race([this.mustEnd.then(() => true), this.helper.ended.then(() => false), isLost]);
        } finally {
            clearInterval(look);
        }
    }

    /** Lets the time pass. Whether we are to end. */
    wait(ms) {
        let timer;
        const isOver = new Promise(resolve => { timer = setTimeout(() => resolve(false), ms); });
        return Promise.race([this.mustEnd.then(() => true), isOver]).finally(() => clearTimeout(timer));
    }

    /** What the helper says: the next line is taken when this one is stored. */
    hear(helper, envelope) {
        const [[name, { _0: record }]] = Object.entries(envelope);
        if (name === 'hello') {
            this.greet(helper, record);
        } else if (name === 'inboundEvent') {
            const { event } = record;
            const line = shown(`${event.senderDisplayName}: ${event.text}`);
            if (this.journal.add(event)) process.stdout.write(`${line}\n`);
        } else if (name === 'stateChanged') {
            say(`connection: ${Object.keys(record.state)[0]}`);
        } else if (name === 'error') {
            say(`The helper could not carry out a request: ${record.message}`);
        }
    }

    greet(helper, hello) {
        if (hello.bridgeVersion !== bridgeVersion) {
            say(`The helper speaks ${hello.bridgeVersion}, this program ${bridgeVersion}.`);
        }
        helper.request('connect');
        helper.request('startListening', { scope: this.scope });
        helper.isGreeted = true;
        this.sendTyped();
    }

    take(text) {
        if (text) this.unsent.push(text);
        if (this.helper && this.helper.isGreeted && this.helper.process.exitCode === null) this.sendTyped();
    }

    sendTyped() {
        for (const text of this.unsent.splice(0)) {
            this.helper.request('sendMessage', { message: { conversationId: this.chatId, text } });
            if (this.worker && this.worker.workerLastHeartbeatISO8601 && !this.worker.workerSupportsOutbound) {
                say('This worker does not send; the message is kept until one comes that does.');
            }
        }
    }

    /** Looks at the helper's status file, says what is new about the worker, and whether it is gone for good. */
    workerIsLost() {
        const runtime = path.join(this.state, 'data', 'runtime');
        let status;
        try {
            status = JSON.parse(fs.readFileSync(path.join(runtime, 'runtime-status.json'), 'utf8'));
        } catch {
            return false;
        }
        // The built-in worker alternates between two words for as long as two things are true.
        if (!this.words.includes(status.workerState)) {
            this.words = [...this.words.slice(-1), status.workerState];
            say(`worker: ${status.workerState}: ${status.workerDetail || ''}`);
            if (status.workerState === 'waiting_for_qr') {
                say(`Scan ${path.join(runtime, 'worker-qr.png')} with the phone.`);
            }
        }
        this.worker = status;
        return lostWorkerStates.includes(status.workerState);
    }
}

function options() {
    const base = process.env.XDG_STATE_HOME || path.join(os.homedir(), '.local', 'state');
    const { values, positionals } = parseArgs({
        options: {
            helper: { type: 'string', default: 'BrindleManagedWhatsAppBackend' },
            state: { type: 'string', default: path.join(base, 'brindle-sample-parent') },
        },
        allowPositionals: true,
    });
    if (positionals.length !== 2) throw new GivenUp(usage);
    return { ...values, chatId: positionals[0], title: positionals[1] };
}

async function main() {
    const { helper, state, chatId, title } = options();
    // Private: who can write here can speak as the worker, and who can read here has the messages.
    try {
        fs.mkdirSync(state, { recursive: true, mode: 0o700 });
    } catch (problem) {
        throw new GivenUp(`Cannot make ${state}: ${problem.message}; name another with --state.`);
    }
    await new Parent(helper, path.resolve(state), chatId, title).run();
}

main().catch(problem => {
    say(problem.message);
    process.exit(1);
});
