// Shared by the browser pages: the console line the tests read, a wait for the camera to be
// listed, and the producer's frame number read from the counter in a frame's top rows (32 blocks
// across, white for 1 and black for 0, most significant first). `row` is one RGBA row through
// the blocks, `width` pixels long; -1 when a block is neither white nor black, as in a frame
// scaled or blended from two.
const say = (text) => console.log("FLOWMERE " + text);
function counterValue(row, width) {
  const block = Math.floor(width / 32);
  let value = 0;
  for (let bit = 0; bit < 32; bit++) {
    const x = bit * block + Math.floor(block / 2);
    const level = (row[4 * x] + row[4 * x + 1] + row[4 * x + 2]) / 3;
    if (level > 64 && level < 192) return -1;
    value = value * 2 + (level >= 192 ? 1 : 0);
  }
  return value;
}

// Waits up to `timeout` ms until the browser lists a camera, polling every 100 ms. After
// Chromium's capture service aborted, its new service lists the camera only once it has
// enumerated again; asking before that fails with "NotFoundError".
async function cameraListed(timeout) {
  const start = performance.now();
  while (performance.now() - start < timeout) {
    const devices = await navigator.mediaDevices.enumerateDevices();
    if (devices.some((d) => d.kind === "videoinput" && d.deviceId !== "")) {
      return "listed after " + (performance.now() - start).toFixed(0) + " ms";
    }
    await new Promise((resolve) => setTimeout(resolve, 100));
  }
  return "not listed after " + timeout + " ms";
}
