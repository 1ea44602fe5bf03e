// The storage's form upload driven by the cloud storage's own Node SDK, as an
// operator who already has code for it would: a rongdian-server is started on
// a free loopback port with its own data folder and the SDK is pointed at it.
//   node upload-cases.js PATH/TO/rongdian-server
'use strict';
const { test, before, after } = require('node:test');
const assert = require('node:assert/strict');
const { spawn } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const http = require('node:http');
const qiniu = require('qiniu');

const AK = 'sdk-test-ak';
const SK = 'sdk-test-sk';
const BUCKET = 'photos';
const samples = path.join(__dirname, '..', '..', 'models', 'face-api', 'demo');
const jpeg = fs.readFileSync(path.join(samples, 'sample1.jpg'));
const jpeg2 = fs.readFileSync(path.join(samples, 'sample2.jpg'));

let server;
let host;
let dataDir;

before(async () => {
  dataDir = fs.mkdtempSync(path.join(os.tmpdir(), 'rd-sdk-'));
  server = spawn(process.argv[2], [
    '--listen', '127.0.0.1:0', '--data', dataDir, '--quiet', '--models', dataDir, '--development',
    '--storage-access-key', AK, '--storage-secret-key', SK, '--storage-bucket', BUCKET,
  ], { stdio: ['ignore', 'pipe', 'inherit'] });
  host = await new Promise((resolve, reject) => {
    let out = '';
    server.stdout.on('data', (d) => {
      out += d;
      const m = out.match(/listening on http:\/\/([0-9.:]+)/);
      if (m) resolve(m[1]);
    });
    server.on('exit', (code) => reject(new Error(`server exited (${code})`)));
  });
});

after(() => {
  server.kill('SIGTERM');
  fs.rmSync(dataDir, { recursive: true, force: true });
});

function uploader() {
  const config = new qiniu.conf.Config();
  config.useHttpsDomain = false;
  config.zone = new qiniu.conf.Zone([host], [host], host, host, host, host);
  return new qiniu.form_up.FormUploader(config);
}

function token(policy) {
  const mac = new qiniu.auth.digest.Mac(AK, SK);
  return new qiniu.rs.PutPolicy(policy).uploadToken(mac);
}

// Uploads through the SDK; resolves to the HTTP status and the reply body.
function put(policy, key, body, extra) {
  return new Promise((resolve, reject) => {
    uploader().put(token(policy), key, body, extra || new qiniu.form_up.PutExtra(),
      (err, ret, info) => {
        if (err && !info) return reject(err);
        resolve({ status: info.statusCode, ret });
      });
  });
}

function download(key) {
  const target = '/files/' + key.split('/').map(encodeURIComponent).join('/');
  return new Promise((resolve, reject) => {
    http.get({ host: host.split(':')[0], port: host.split(':')[1], path: target }, (res) => {
      const parts = [];
      res.on('data', (d) => parts.push(d));
      res.on('end', () => resolve({ status: res.statusCode, body: Buffer.concat(parts) }));
    }).on('error', reject);
  });
}

test('a UTF-8 key with folders and spaces, posted to the root of the upload host', async () => {
  const key = '相册/2024 夏天/我的 照片.jpg';
  const r = await put({ scope: BUCKET }, key, jpeg);
  assert.equal(r.status, 200, JSON.stringify(r.ret));
  assert.equal(r.ret.key, key);
  assert.equal(r.ret.hash.length, 28);
  const got = await download(key);
  assert.equal(got.status, 200);
  assert.ok(got.body.equals(jpeg));
  // The SDK sent the file's crc32, which was checked; a wrong one is refused.
  const extra = new qiniu.form_up.PutExtra();
  extra.crc32 = '12345';
  assert.equal((await put({ scope: BUCKET }, 'bad-crc.jpg', jpeg, extra)).status, 406);
  assert.equal((await download('bad-crc.jpg')).status, 404);
});

test('returnBody with its variables, and saveKey', async () => {
  const extra = new qiniu.form_up.PutExtra('face.jpg', { 'x:note': 'say "hi"' });
  const returnBody = '{"key":"$(key)","hash":"$(etag)","fsize":$(fsize),"mime":"$(mimeType)",' +
    '"name":"$(fname)","bucket":"$(bucket)","note":"$(x:note)","w":$(imageInfo.width),"raw":$(x:note)}';
  const r = await put({ scope: BUCKET, returnBody }, 'rb.jpg', jpeg, extra);
  assert.equal(r.status, 200, JSON.stringify(r.ret));
  assert.deepEqual(r.ret, {
    key: 'rb.jpg', hash: r.ret.hash, fsize: jpeg.length, mime: 'image/jpeg', name: 'face.jpg',
    bucket: BUCKET, note: 'say "hi"', w: r.ret.w, raw: 'say "hi"',
  });
  assert.ok(r.ret.w > 0);

  const saved = await put({ scope: BUCKET, saveKey: 'faces/$(etag)$(ext)', returnBody: '{"key":$(key),"hash":$(etag)}' },
    null, jpeg2, new qiniu.form_up.PutExtra('me.jpg'));
  assert.equal(saved.status, 200, JSON.stringify(saved.ret));
  assert.equal(saved.ret.key, `faces/${saved.ret.hash}.jpg`);
  assert.equal((await download(saved.ret.key)).status, 200);
});

test('mimeLimit and fsizeLimit', async () => {
  assert.equal((await put({ scope: BUCKET, mimeLimit: 'image/*' }, 'm1.jpg', jpeg)).status, 200);
  assert.equal((await put({ scope: BUCKET, mimeLimit: 'image/jpeg;image/png' }, 'm2.jpg', jpeg)).status, 200);
  const png = await put({ scope: BUCKET, mimeLimit: 'image/png' }, 'm3.jpg', jpeg);
  assert.equal(png.status, 403);
  assert.match(png.ret.error, /limited mimeType/);
  assert.equal((await put({ scope: BUCKET, mimeLimit: '!image/jpeg' }, 'm4.jpg', jpeg)).status, 403);
  assert.equal((await put({ scope: BUCKET, fsizeLimit: 1000 }, 'big.jpg', jpeg)).status, 413);
  assert.equal((await download('big.jpg')).status, 404);
  // Not a photo: this storage keeps photos only.
  assert.equal((await put({ scope: BUCKET }, 'notes.txt', Buffer.from('hello'))).status, 400);
});

test('overwrite under bucket:key, insertOnly, and a prefix scope', async () => {
  assert.equal((await put({ scope: `${BUCKET}:same.jpg` }, 'same.jpg', jpeg)).status, 200);
  assert.equal((await put({ scope: `${BUCKET}:same.jpg` }, 'same.jpg', jpeg2)).status, 200);
  assert.ok((await download('same.jpg')).body.equals(jpeg2));
  const only = await put({ scope: `${BUCKET}:same.jpg`, insertOnly: 1 }, 'same.jpg', jpeg);
  assert.equal(only.status, 614);
  // A bucket-wide token never replaces; the same bytes again are no conflict.
  assert.equal((await put({ scope: BUCKET }, 'same.jpg', jpeg)).status, 614);
  assert.equal((await put({ scope: BUCKET }, 'same.jpg', jpeg2)).status, 200);
  assert.ok((await download('same.jpg')).body.equals(jpeg2));
  // Another key than the scope's is refused.
  assert.equal((await put({ scope: `${BUCKET}:same.jpg` }, 'other.jpg', jpeg)).status, 403);

  const prefix = { scope: `${BUCKET}:user1/`, isPrefixalScope: 1 };
  assert.equal((await put(prefix, 'user1/a.jpg', jpeg)).status, 200);
  assert.equal((await put(prefix, 'user2/a.jpg', jpeg)).status, 403);
  assert.equal((await put(prefix, 'user1/a.jpg', jpeg2)).status, 614);
});

test('tokens the storage does not accept', async () => {
  const wrong = new qiniu.auth.digest.Mac(AK, 'not-the-secret');
  const bad = new qiniu.rs.PutPolicy({ scope: BUCKET }).uploadToken(wrong);
  const r = await new Promise((resolve) => uploader().put(bad, 'x.jpg', jpeg, null,
    (err, ret, info) => resolve({ status: info.statusCode, ret })));
  assert.equal(r.status, 401);
  assert.equal((await put({ scope: 'other-bucket' }, 'x.jpg', jpeg)).status, 631);
});
