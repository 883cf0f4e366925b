'use strict';
/* eslint-env node */
// What Ajv makes of documents: validate-documents.js SCHEMA... reads lines ["title of a schema", document]
// and answers each with a line, true or false.

const fs = require('fs');
const Ajv = require('ajv/dist/2020');

const ajv = new Ajv({ strict: true, allowUnionTypes: true, validateFormats: false });
const validators = {};
for (const path of process.argv.slice(2)) {
    const schema = JSON.parse(fs.readFileSync(path, 'utf8'));
    validators[schema.title] = ajv.compile(schema);
}

const answers = [];
for (const line of fs.readFileSync(0, 'utf8').split('\n')) {
    if (line !== '') {
        const [title, document] = JSON.parse(line);
        answers.push(String(validators[title](document)));
    }
}
process.stdout.write(`${answers.join('\n')}\n`);
