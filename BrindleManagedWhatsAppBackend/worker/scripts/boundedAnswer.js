// Stands around every script: what a page has put in the place of our results is held to a length before it
// leaves the page's process, because the worker would pay for it several times over. Nothing here calls what
// a page can replace; the length of a text is one of the few things that it cannot.
const longestAnswer = 16 * 1024 * 1024;
const longestReason = 2000;

// A text, whatever was thrown: an object would be made one in the worker's stead, and each time anew.
function readReason(thrown) {
    let reason = "";
    try {
        reason = `${thrown}`;
    } catch (error) {
        reason = "The page threw what is no text.";
    }
    return reason.length > longestReason ? "The page threw a text that is too long." : reason;
}

function runBounded(script) {
    let answer = null;
    let reason = null;
    try {
        answer = script();
    } catch (error) {
        reason = readReason(error);
    }
    if (typeof answer !== "string") {
        answer = null;
    } else if (answer.length > longestAnswer) {
        reason = "The page's answer is too long.";
    }
    if (reason !== null) {
        throw reason;
    }
    return answer;
}
