// The login QR code as the page has drawn it, as a data URL.
const canvas = document.querySelector("canvas");
return canvas ? canvas.toDataURL("image/png") : null;
