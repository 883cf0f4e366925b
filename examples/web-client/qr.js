// QR codes (ISO/IEC 18004): byte mode, error correction level M, versions 1 to 40. A page that must work
// without a network cannot fetch an encoder, so it brings its own.
(function () {
    "use strict";

    // For level M, by version: error correction codewords of each block, and the number of blocks.
    const CORRECTION_CODEWORDS = [0, 10, 16, 26, 18, 24, 16, 18, 22, 22, 26, 30, 22, 22, 24, 24, 28, 28,
        26, 26, 26, 26, 28, 28, 28, 28, 28, 28, 28, 28, 28, 28, 28, 28, 28, 28, 28, 28, 28, 28, 28];
    const BLOCKS = [0, 1, 1, 1, 2, 2, 4, 4, 4, 5, 5, 5, 8, 9, 9, 10, 10, 11, 13, 14, 16,
        17, 17, 18, 20, 21, 23, 25, 26, 28, 29, 31, 33, 35, 37, 38, 40, 43, 45, 47, 49];
    const LAST_VERSION = 40;
    const BYTE_MODE = 4;
    // Level M as the format information writes it.
    const LEVEL_BITS = 0;
    const QUIET_ZONE_MODULES = 4;

    const MASKS = [
        (row, column) => (row + column) % 2 === 0,
        (row) => row % 2 === 0,
        (row, column) => column % 3 === 0,
        (row, column) => (row + column) % 3 === 0,
        (row, column) => (Math.floor(row / 2) + Math.floor(column / 3)) % 2 === 0,
        (row, column) => (row * column) % 2 + (row * column) % 3 === 0,
        (row, column) => ((row * column) % 2 + (row * column) % 3) % 2 === 0,
        (row, column) => ((row + column) % 2 + (row * column) % 3) % 2 === 0,
    ];

    // The field GF(256) of the error correction, modulus x^8 + x^4 + x^3 + x^2 + 1.
    const POWERS = new Uint8Array(255);
    const LOGARITHMS = new Uint8Array(256);
    for (let exponent = 0, value = 1; exponent < 255; exponent += 1) {
        POWERS[exponent] = value;
        LOGARITHMS[value] = exponent;
        value = value << 1 ^ (value & 0x80 ? 0x11D : 0);
    }

    function product(a, b) {
        return a === 0 || b === 0 ? 0 : POWERS[(LOGARITHMS[a] + LOGARITHMS[b]) % 255];
    }

    /** Coefficients of (x - 1)(x - 2)(x - 4)... without the leading 1, highest power first. */
    function generatorPolynomial(degree) {
        const coefficients = new Uint8Array(degree);
        coefficients[degree - 1] = 1;
        for (let factor = 0; factor < degree; factor += 1) {
            for (let i = 0; i < degree; i += 1) {
                const next = i + 1 < degree ? coefficients[i + 1] : 0;
                coefficients[i] = product(coefficients[i], POWERS[factor]) ^ next;
            }
        }
        return coefficients;
    }

    function correctionFor(data, generator) {
        const remainder = new Uint8Array(generator.length);
        for (const byte of data) {
            const lead = byte ^ remainder[0];
            remainder.copyWithin(0, 1);
            remainder[remainder.length - 1] = 0;
            for (let i = 0; i < generator.length; i += 1) {
                remainder[i] ^= product(generator[i], lead);
            }
        }
        return remainder;
    }

    function sizeOf(version) {
        return version * 4 + 17;
    }

    function alignmentPositions(version) {
        if (version === 1) {
            return [];
        }
        const count = Math.floor(version / 7) + 2;
        const last = sizeOf(version) - 7;
        const step = version === 32 ? 26 : Math.ceil((last - 6) / (2 * (count - 1))) * 2;
        const positions = [6];
        for (let i = count - 2; i >= 0; i -= 1) {
            positions.push(last - i * step);
        }
        return positions;
    }

    /** How many codewords the free modules of a version hold. */
    function codewordsOf(version) {
        const size = sizeOf(version);
        const alignments = alignmentPositions(version).length;
        let modules = size * size - 3 * 64 - 31 - 2 * (size - 16);
        if (version > 1) {
            // Those on the timing patterns share five modules with them.
            modules -= (alignments * alignments - 3) * 25 - (alignments - 2) * 2 * 5;
        }
        if (version > 6) {
            modules -= 36;
        }
        return Math.floor(modules / 8);
    }

    function dataCodewordsOf(version) {
        return codewordsOf(version) - CORRECTION_CODEWORDS[version] * BLOCKS[version];
    }

    function lengthBits(version) {
        return version < 10 ? 8 : 16;
    }

    function versionFor(byteCount) {
        for (let version = 1; version <= LAST_VERSION; version += 1) {
            if (4 + lengthBits(version) + byteCount * 8 <= dataCodewordsOf(version) * 8) {
                return version;
            }
        }
        throw new RangeError("A QR code cannot hold " + byteCount + " bytes.");
    }

    function dataCodewords(bytes, version) {
        const bits = [];
        const append = (value, count) => {
            for (let i = count - 1; i >= 0; i -= 1) {
                bits.push(value >>> i & 1);
            }
        };
        append(BYTE_MODE, 4);
        append(bytes.length, lengthBits(version));
        bytes.forEach((byte) => append(byte, 8));
        const capacity = dataCodewordsOf(version) * 8;
        append(0, Math.min(4, capacity - bits.length));
        append(0, (8 - bits.length % 8) % 8);
        for (let padding = 0xEC; bits.length < capacity; padding ^= 0xEC ^ 0x11) {
            append(padding, 8);
        }
        const codewords = new Uint8Array(capacity / 8);
        bits.forEach((bit, i) => {
            codewords[i >> 3] |= bit << 7 - (i & 7);
        });
        return codewords;
    }

    /** Cut into blocks, each with its correction, and interleaved. The last may be one codeword longer. */
    function interleavedCodewords(data, version) {
        const blockCount = BLOCKS[version];
        const shortLength = Math.floor(data.length / blockCount);
        const shortCount = blockCount - data.length % blockCount;
        const generator = generatorPolynomial(CORRECTION_CODEWORDS[version]);
        const blocks = [];
        for (let i = 0, begin = 0; i < blockCount; i += 1) {
            const end = begin + shortLength + (i < shortCount ? 0 : 1);
            const block = data.slice(begin, end);
            blocks.push({ data: block, correction: correctionFor(block, generator) });
            begin = end;
        }
        const result = [];
        const interleave = (length, part) => {
            for (let i = 0; i < length; i += 1) {
                const longEnough = blocks.filter((block) => i < block[part].length);
                longEnough.forEach((block) => result.push(block[part][i]));
            }
        };
        interleave(shortLength + 1, "data");
        interleave(generator.length, "correction");
        return result;
    }

    /** The modules of a symbol: which are dark, and which belong to a function pattern. */
    class QRSymbol {
        constructor(version) {
            this.version = version;
            this.size = sizeOf(version);
            this.dark = Array.from({ length: this.size }, () => new Array(this.size).fill(false));
            this.reserved = Array.from({ length: this.size }, () => new Array(this.size).fill(false));
            this.drawTiming();
            this.drawFinders();
            this.drawAlignments();
            this.drawVersion();
            this.drawFormat(0);
        }

        set(row, column, isDark) {
            this.dark[row][column] = isDark;
            this.reserved[row][column] = true;
        }

        drawTiming() {
            for (let i = 0; i < this.size; i += 1) {
                this.set(6, i, i % 2 === 0);
                this.set(i, 6, i % 2 === 0);
            }
        }

        drawFinders() {
            const far = this.size - 4;
            for (const [row, column] of [[3, 3], [3, far], [far, 3]]) {
                for (let y = -4; y <= 4; y += 1) {
                    for (let x = -4; x <= 4; x += 1) {
                        const distance = Math.max(Math.abs(x), Math.abs(y));
                        if (this.contains(row + y, column + x)) {
                            this.set(row + y, column + x, distance !== 2 && distance !== 4);
                        }
                    }
                }
            }
        }

        contains(row, column) {
            return row >= 0 && row < this.size && column >= 0 && column < this.size;
        }

        drawAlignments() {
            const positions = alignmentPositions(this.version);
            const last = positions.length - 1;
            positions.forEach((row, i) => positions.forEach((column, j) => {
                const isAtFinder = (i === 0 && (j === 0 || j === last)) || (i === last && j === 0);
                if (!isAtFinder) {
                    this.drawAlignment(row, column);
                }
            }));
        }

        drawAlignment(row, column) {
            for (let y = -2; y <= 2; y += 1) {
                for (let x = -2; x <= 2; x += 1) {
                    this.set(row + y, column + x, Math.max(Math.abs(x), Math.abs(y)) !== 1);
                }
            }
        }

        drawVersion() {
            if (this.version < 7) {
                return;
            }
            const bits = withRemainder(this.version, 12, 0x1F25);
            for (let i = 0; i < 18; i += 1) {
                const near = Math.floor(i / 3);
                const far = this.size - 11 + i % 3;
                const isDark = (bits >>> i & 1) === 1;
                this.set(near, far, isDark);
                this.set(far, near, isDark);
            }
        }

        drawFormat(mask) {
            const bits = withRemainder(LEVEL_BITS << 3 | mask, 10, 0x537) ^ 0x5412;
            for (let i = 0; i < 15; i += 1) {
                const isDark = (bits >>> i & 1) === 1;
                const skipsTiming = (position) => (position < 6 ? position : position + 1);
                // Once around the upper left finder pattern, once along the other two.
                this.set(i < 8 ? skipsTiming(i) : 8, i < 8 ? 8 : (i === 8 ? 7 : 14 - i), isDark);
                this.set(i < 8 ? 8 : this.size - 15 + i, i < 8 ? this.size - 1 - i : 8, isDark);
            }
            this.set(this.size - 8, 8, true);
        }

        /** Two columns at a time from the right, upwards and downwards in turn. */
        drawCodewords(codewords) {
            let bit = 0;
            let isUpward = true;
            for (let right = this.size - 1; right > 0; right -= 2) {
                if (right === 6) {
                    right = 5;
                }
                for (let step = 0; step < this.size; step += 1) {
                    const row = isUpward ? this.size - 1 - step : step;
                    for (const column of [right, right - 1]) {
                        if (!this.reserved[row][column] && bit < codewords.length * 8) {
                            this.dark[row][column] = (codewords[bit >> 3] >>> 7 - (bit & 7) & 1) === 1;
                            bit += 1;
                        }
                    }
                }
                isUpward = !isUpward;
            }
        }

        /** Doing it twice undoes it. */
        applyMask(mask) {
            for (let row = 0; row < this.size; row += 1) {
                for (let column = 0; column < this.size; column += 1) {
                    if (!this.reserved[row][column] && MASKS[mask](row, column)) {
                        this.dark[row][column] = !this.dark[row][column];
                    }
                }
            }
        }

        /** How hard the symbol is to read: the four rules of the standard. */
        penalty() {
            const columns = this.dark.map((_, i) => this.dark.map((row) => row[i]));
            return linePenalty(this.dark) + linePenalty(columns)
                + this.blockPenalty() + this.balancePenalty();
        }

        blockPenalty() {
            let blocks = 0;
            for (let row = 1; row < this.size; row += 1) {
                for (let column = 1; column < this.size; column += 1) {
                    const value = this.dark[row][column];
                    if (value === this.dark[row - 1][column] && value === this.dark[row][column - 1]
                        && value === this.dark[row - 1][column - 1]) {
                        blocks += 1;
                    }
                }
            }
            return blocks * 3;
        }

        balancePenalty() {
            const darkCount = this.dark.reduce((sum, row) => sum + row.filter(Boolean).length, 0);
            const percent = darkCount * 100 / (this.size * this.size);
            return Math.floor(Math.abs(percent - 50) / 5) * 10;
        }
    }

    /** `value` followed by `count` bits of its remainder (a BCH code). */
    function withRemainder(value, count, generator) {
        let remainder = value;
        for (let i = 0; i < count; i += 1) {
            remainder = remainder << 1 ^ (remainder >>> count - 1) * generator;
        }
        return value << count | remainder;
    }

    /** Long runs of one colour, and what looks like a finder pattern. */
    function linePenalty(lines) {
        let penalty = 0;
        for (const line of lines) {
            const text = line.map((isDark) => (isDark ? "1" : "0")).join("");
            for (const run of text.match(/1{5,}|0{5,}/g) || []) {
                penalty += run.length - 2;
            }
            penalty += (text.match(/(?=00001011101|10111010000)/g) || []).length * 40;
        }
        return penalty;
    }

    /** The modules of the QR code of a text: rows of booleans, true is dark. */
    function encode(text) {
        const bytes = new TextEncoder().encode(text);
        const version = versionFor(bytes.length);
        const symbol = new QRSymbol(version);
        symbol.drawCodewords(interleavedCodewords(dataCodewords(bytes, version), version));
        let best = { mask: 0, penalty: Infinity };
        for (let mask = 0; mask < MASKS.length; mask += 1) {
            symbol.applyMask(mask);
            symbol.drawFormat(mask);
            const penalty = symbol.penalty();
            symbol.applyMask(mask);
            if (penalty < best.penalty) {
                best = { mask, penalty };
            }
        }
        symbol.applyMask(best.mask);
        symbol.drawFormat(best.mask);
        return symbol.dark;
    }

    /** Draws modules, black on white with their quiet zone, and makes the canvas as large as they need. */
    function draw(canvas, modules, pixelsPerModule) {
        const side = (modules.length + 2 * QUIET_ZONE_MODULES) * pixelsPerModule;
        canvas.width = side;
        canvas.height = side;
        const context = canvas.getContext("2d");
        context.fillStyle = "#ffffff";
        context.fillRect(0, 0, side, side);
        context.fillStyle = "#000000";
        modules.forEach((line, row) => line.forEach((isDark, column) => {
            if (isDark) {
                context.fillRect((column + QUIET_ZONE_MODULES) * pixelsPerModule,
                    (row + QUIET_ZONE_MODULES) * pixelsPerModule, pixelsPerModule, pixelsPerModule);
            }
        }));
    }

    window.SampleQR = { encode, draw };
}());
