'use strict';
/* eslint-env node */
// What Node makes of documents: answers as document_reader --read does.

const fs = require('fs');

const lineFeed = 10;
const decoder = new TextDecoder('utf-8', { fatal: true, ignoreBOM: true });

function describe(value) {
    if (value === null) {
        return ['z'];
    }
    if (typeof value === 'string') {
        return ['s', value];
    }
    if (typeof value === 'boolean') {
        return ['b', String(value)];
    }
    if (typeof value === 'number') {
        return ['n', Number.isSafeInteger(value) ? String(value) : '?'];
    }
    if (Array.isArray(value)) {
        return ['a', ...value.map(describe)];
    }
    return ['o', ...Object.keys(value).map(name => [name, describe(value[name])])];
}

function description(bytes) {
    try {
        return JSON.stringify(describe(JSON.parse(decoder.decode(bytes))));
    } catch (error) {
        return 'refused';
    }
}

const input = fs.readFileSync(0);
const lines = [];
for (let at = 0; at < input.length;) {
    const lineEnd = input.indexOf(lineFeed, at);
    const begin = lineEnd + 1;
    at = begin + Number(input.toString('latin1', at, lineEnd));
    lines.push(description(input.subarray(begin, at)));
}
process.stdout.write(`${lines.join('\n')}\n`);
