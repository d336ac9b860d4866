"use strict";

const FRAME = 38; // milliseconds: about 25 frames a second

// Takes the place of a video: draws a scene that depends only on the time, with captions.
class Film {
  /** `cues` are [seconds, text], by time; `onFrame` gets the time in seconds, from 0 to below `length`. */
  constructor(canvas, length, cues, onFrame) {
    this.playing = false;
    this.time = 0;
    this.cues = cues;
    let last = performance.now();
    const frame = (now) => {
      requestAnimationFrame(frame);
      if (now - last < FRAME) return;
      if (this.playing) {
        this.time = (this.time + Math.max(0, now - last) / 1000) % length;
        draw(canvas, this.time / length);
        onFrame(this.time);
      }
      last = now;
    };
    requestAnimationFrame(frame);
    draw(canvas, 0);
  }

  get caption() {
    return this.cues.filter((cue) => cue[0] <= this.time).pop()[1];
  }
}

const TURN = 2 * Math.PI;
const LAMP = { x: 372, y: 236 };
const HORIZON = 450;

// The scene at `part` of the film, 0 to 1. All motions end where they began, because the film runs in a loop.
function draw(canvas, part) {
  const context = canvas.getContext("2d");
  drawSky(context, part);
  drawSea(context, part);
  drawCliff(context);
  drawLight(context, part);
}

function gradient(context, from, to, stops) {
  const result = context.createLinearGradient(0, from, 0, to);
  stops.forEach((color, index) => result.addColorStop(index / (stops.length - 1), color));
  return result;
}

function shape(context, fill, points) {
  context.fillStyle = fill;
  context.beginPath();
  points.forEach((point) => context.lineTo(point[0], point[1]));
  context.fill();
}

function disc(context, fill, x, y, radius) {
  context.fillStyle = fill;
  context.beginPath();
  context.arc(x, y, radius, 0, TURN);
  context.fill();
}

function drawSky(context, part) {
  context.fillStyle = gradient(context, 0, HORIZON, ["#060b1f", "#101c3f", "#2b3566", "#7a5472", "#d98a63"]);
  context.fillRect(0, 0, 1280, HORIZON);
  for (let star = 0; star < 110; star++) {
    const x = (star * 733) % 1280;
    const y = ((star * star * 37) % 1000) / 1000;
    const glow = (0.55 + 0.45 * Math.sin(TURN * (part * (3 + star % 5) + star / 7))) * (1 - y);
    disc(context, `rgba(235,240,255,${glow})`, x, y * 320, 0.7 + (star % 3) * 0.4);
  }
  disc(context, "rgba(255,240,215,.12)", 690, 150, 74);
  disc(context, "#f6ead2", 690, 150, 42);
}

function drawSea(context, part) {
  context.fillStyle = gradient(context, HORIZON, 720, ["#b87a68", "#3b3a63", "#0f1a3a"]);
  context.fillRect(0, HORIZON, 1280, 270);

  const boat = 1340 - part * 760;
  const rise = 2 * Math.sin(TURN * part * 8);
  shape(context, "#191730", [[boat, 466 + rise], [boat + 58, 466 + rise], [boat + 46, 480 + rise],
    [boat + 10, 480 + rise]]);
  shape(context, "#e9dcc6", [[boat + 26, 412 + rise], [boat + 26, 460 + rise], [boat + 54, 460 + rise]]);

  ["#4b4570", "#2b3159", "#182146", "#0c1430"].forEach((fill, row) => {
    const top = 478 + row * 52;
    const points = [[1280, 720], [0, 720]];
    for (let x = 0; x <= 1280; x += 16) {
      const swell = Math.sin(TURN * (x / (230 + row * 60) + part * (4 + row)));
      const ripple = Math.sin(TURN * (x / 71 - part * (7 - row)));
      points.push([x, top + (4 + row * 3) * swell + 2 * ripple]);
    }
    context.globalAlpha = 0.85;
    shape(context, fill, points);
    context.globalAlpha = 1;
  });
}

function drawCliff(context) {
  shape(context, gradient(context, 400, 720, ["#1d1a2c", "#07070f"]), [
    [0, 720], [0, 402], [90, 414], [190, 404], [300, 418], [446, 420], [474, 452], [522, 478], [538, 530], [592, 580],
    [610, 650], [668, 720]]);
  shape(context, gradient(context, 250, 425, ["#f2ead8", "#8f8799"]), [[352, 256], [392, 256], [406, 424], [338, 424]]);
  shape(context, "#b5423c", [[347.5, 304], [396.5, 304], [400, 346], [344, 346]]);
  shape(context, "#26233a", [[342, 250], [402, 250], [402, 258], [342, 258]]);
  shape(context, "#26233a", [[354, 222], [372, 200], [390, 222]]);
}

function drawLight(context, part) {
  const angle = TURN * part * 3;
  const facing = Math.cos(angle);           // 1 straight at the viewer.
  const reach = 1500 * Math.sin(angle);
  context.save();
  context.globalCompositeOperation = "lighter";
  const beam = context.createLinearGradient(LAMP.x, 0, LAMP.x + reach, 0);
  beam.addColorStop(0, "rgba(255,236,180,.42)");
  beam.addColorStop(1, "rgba(255,236,180,0)");
  const spread = 40 + 190 * Math.abs(Math.sin(angle));
  shape(context, beam, [[LAMP.x, LAMP.y - 5], [LAMP.x + reach, LAMP.y - spread], [LAMP.x + reach, LAMP.y + spread],
    [LAMP.x, LAMP.y + 5]]);
  const radius = 60 + 150 * Math.pow(Math.max(0, facing), 4);
  const halo = context.createRadialGradient(LAMP.x, LAMP.y, 0, LAMP.x, LAMP.y, radius);
  halo.addColorStop(0, "rgba(255,244,210,.95)");
  halo.addColorStop(0.15, "rgba(255,230,170,.45)");
  halo.addColorStop(1, "rgba(255,220,150,0)");
  disc(context, halo, LAMP.x, LAMP.y, radius);
  context.restore();
}
