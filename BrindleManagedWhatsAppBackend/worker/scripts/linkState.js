// Tells whether the page shows a linked session. The request to scan is looked for first: while it is shown,
// the page may already have built its side pane.
const qrCodeText = "Use WhatsApp on your phone to scan the QR code";

const pageText = (document.body && document.body.innerText) || "";
if (!pageText.includes(qrCodeText) && document.querySelector("#side")) {
    return JSON.stringify({ linked: true, account: "WhatsApp Web" });
}
return JSON.stringify({ linked: false, account: null });
