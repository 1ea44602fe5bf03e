// The face model package run in Node (tfjs, WASM backend): the reference the
// C++ engine is compared with. Test tooling only.
//
//   node face-reference.js --models DIR [--repeat N] IMAGE.ppm...
//
// Images are binary PPM (P6, 8-bit RGB) so that both sides see the very same
// pixels. Prints one JSON document: per image its size, the faces (box,
// score, 68 landmarks, age, gender and probability, seven expression
// probabilities) and the mean milliseconds per analysis over N runs.
'use strict';

const fs = require('fs');
const path = require('path');
const tf = require('@tensorflow/tfjs');
require('@tensorflow/tfjs-backend-wasm');
const faceapi = require('@vladmandic/face-api/dist/face-api.node-wasm.js');

const EXPRESSIONS = ['neutral', 'happy', 'sad', 'angry', 'fearful', 'disgusted', 'surprised'];

function readPpm(file) {
  const buf = fs.readFileSync(file);
  const fields = [];
  let pos = 0;
  while (fields.length < 4) {
    while (pos < buf.length && /\s/.test(String.fromCharCode(buf[pos]))) pos += 1;
    if (buf[pos] === 0x23) { // comment
      while (pos < buf.length && buf[pos] !== 0x0a) pos += 1;
      continue;
    }
    const start = pos;
    while (pos < buf.length && !/\s/.test(String.fromCharCode(buf[pos]))) pos += 1;
    fields.push(buf.toString('latin1', start, pos));
  }
  pos += 1; // the one whitespace byte after maxval
  const [magic, w, h, max] = fields;
  if (magic !== 'P6' || max !== '255') throw new Error(`${file}: not an 8-bit binary PPM`);
  const width = Number(w);
  const height = Number(h);
  const data = new Int32Array(buf.subarray(pos, pos + (width * height * 3)));
  return { width, height, tensor: tf.tensor3d(data, [height, width, 3], 'int32') };
}

async function analyse(tensor) {
  const options = new faceapi.TinyFaceDetectorOptions({ inputSize: 416, scoreThreshold: 0.5 });
  return faceapi.detectAllFaces(tensor, options)
    .withFaceLandmarks()
    .withFaceExpressions()
    .withAgeAndGender();
}

async function main() {
  const args = process.argv.slice(2);
  let models = null;
  let repeat = 1;
  const files = [];
  for (let i = 0; i < args.length; i += 1) {
    if (args[i] === '--models') { i += 1; models = args[i]; } else if (args[i] === '--repeat') { i += 1; repeat = Math.max(1, Number(args[i])); } else files.push(args[i]);
  }
  if (!models || files.length === 0) {
    process.stderr.write('usage: face-reference.js --models DIR [--repeat N] IMAGE.ppm...\n');
    process.exit(2);
  }
  await tf.setBackend('wasm');
  await tf.ready();
  await faceapi.nets.tinyFaceDetector.loadFromDisk(models);
  await faceapi.nets.faceLandmark68Net.loadFromDisk(models);
  await faceapi.nets.faceExpressionNet.loadFromDisk(models);
  await faceapi.nets.ageGenderNet.loadFromDisk(models);

  const out = { backend: tf.getBackend(), images: [] };
  for (const file of files) {
    const { width, height, tensor } = readPpm(file);
    let result = await analyse(tensor); // also the warm-up
    const t0 = process.hrtime.bigint();
    for (let r = 0; r < repeat; r += 1) result = await analyse(tensor);
    const ms = Number(process.hrtime.bigint() - t0) / 1e6 / repeat;
    tensor.dispose();
    out.images.push({
      file: path.basename(file),
      width,
      height,
      ms,
      faces: result.map((f) => ({
        box: { x: f.detection.box.x, y: f.detection.box.y, width: f.detection.box.width, height: f.detection.box.height },
        score: f.detection.score,
        landmarks: f.landmarks.positions.map((p) => [p.x, p.y]),
        age: f.age,
        gender: f.gender,
        genderProbability: f.genderProbability,
        expressions: EXPRESSIONS.map((e) => f.expressions[e]),
      })),
    });
  }
  process.stdout.write(`${JSON.stringify(out)}\n`);
}

main().catch((e) => {
  process.stderr.write(`face-reference: ${e && e.stack ? e.stack : e}\n`);
  process.exit(1);
});
