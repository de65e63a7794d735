// The luafxs viewer: draws the planes embedded in this page on a canvas.
// Data: one JSON object (#luafxs-data) whose arrays are base64 typed arrays
// (little-endian Float32 / Int32 / Uint8). Points are (u, v) in the plane's
// drawing axes relative to `origin`, `w` their depth along the normal.
(function () {
  'use strict';

  const PALETTE = ['#1f77b4', '#d62728', '#2ca02c', '#ff7f0e', '#9467bd', '#8c564b', '#e377c2',
    '#17becf'];
  const BLEND_COLOUR = 'rgba(242, 182, 0, 0.55)';
  const MARKER_SPACING_PX = 7; // markers once points are this far apart on screen
  const PICK_RADIUS_PX = 10;

  const raw = JSON.parse(document.getElementById('luafxs-data').textContent);

  function bytesOf(text) {
    const bin = atob(text);
    const out = new Uint8Array(bin.length);
    for (let i = 0; i < bin.length; i++) out[i] = bin.charCodeAt(i);
    return out.buffer;
  }
  function f32(text) { return text ? new Float32Array(bytesOf(text)) : null; }
  function i32(text) { return text ? new Int32Array(bytesOf(text)) : null; }
  function u8(text) { return text ? new Uint8Array(bytesOf(text)) : null; }

  // ---- The data -------------------------------------------------------------
  const layers = raw.layers.map((l, i) => ({
    label: l.label, file: l.file, subset: l.subset, colour: PALETTE[i % PALETTE.length],
    visible: true, index: i,
  }));
  const planes = raw.planes.map((p) => ({
    id: p.id,
    depth: p.depth,
    overlap: p.overlap,
    parts: p.parts.map((part) => decodePart(part)),
  }));

  function decodePart(part) {
    const pts = f32(part.pts);
    const n = pts.length / 2;
    const seg = i32(part.seg);
    return {
      layer: part.layer, n: n, pts: pts, w: f32(part.w), runs: runsOf(seg, n),
      nrm: f32(part.nrm), res: f32(part.res), dist: f32(part.dist), blend: u8(part.blend),
      spacing: spacingOf(pts),
    };
  }

  // [first, end) ranges from running counts; points after the last usable count form one run.
  function runsOf(seg, n) {
    const runs = [];
    let start = 0;
    if (seg) {
      for (let i = 0; i < seg.length; i++) {
        const end = seg[i];
        if (end < start || end > n) break;
        if (end > start) runs.push([start, end]);
        start = end;
      }
    }
    if (start < n) runs.push([start, n]);
    return runs;
  }

  function spacingOf(pts) {
    const steps = [];
    const n = pts.length / 2;
    const stride = Math.max(1, Math.floor(n / 2000));
    for (let i = stride; i < n; i += stride) {
      const d = Math.hypot(pts[2 * i] - pts[2 * i - 2], pts[2 * i + 1] - pts[2 * i - 1]);
      if (d > 0 && isFinite(d)) steps.push(d);
    }
    steps.sort((a, b) => a - b);
    return steps.length ? steps[steps.length >> 1] : 0;
  }

  let distLow = Infinity;
  let distHigh = -Infinity;
  for (const p of planes) {
    for (const part of p.parts) {
      if (!part.dist) continue;
      for (let i = 0; i < part.dist.length; i++) {
        const d = part.dist[i];
        if (isFinite(d)) { if (d < distLow) distLow = d; if (d > distHigh) distHigh = d; }
      }
    }
  }

  // ---- State and elements ---------------------------------------------------
  const canvas = document.getElementById('plot');
  const ctx = canvas.getContext('2d');
  const slider = document.getElementById('plane-slider');
  const planeLabel = document.getElementById('plane-label');
  const readout = document.getElementById('readout');
  const status = document.getElementById('status');
  const options = {
    markers: document.getElementById('show-markers'),
    normals: document.getElementById('show-normals'),
    results: document.getElementById('show-results'),
    blend: document.getElementById('show-blend'),
    distance: document.getElementById('color-distance'),
  };
  const state = { plane: 0, scale: 1, offU: 0, offV: 0, width: 1, height: 1, lastDrawMs: 0 };

  function toX(u) { return (u - state.offU) * state.scale; }
  function toY(v) { return state.height - (v - state.offV) * state.scale; }
  function toU(x) { return x / state.scale + state.offU; }
  function toV(y) { return (state.height - y) / state.scale + state.offV; }

  function resize() {
    const ratio = window.devicePixelRatio || 1;
    const rect = canvas.getBoundingClientRect();
    state.width = Math.max(1, rect.width);
    state.height = Math.max(1, rect.height);
    canvas.width = Math.round(state.width * ratio);
    canvas.height = Math.round(state.height * ratio);
    ctx.setTransform(ratio, 0, 0, ratio, 0, 0);
  }

  // Shows box [u0, v0, u1, v1] whole, equal scales, centred.
  function showBox(box) {
    const su = Math.max(box[2] - box[0], 1e-9);
    const sv = Math.max(box[3] - box[1], 1e-9);
    state.scale = Math.min(state.width / su, state.height / sv);
    state.offU = box[0] - (state.width / state.scale - su) / 2;
    state.offV = box[1] - (state.height / state.scale - sv) / 2;
  }

  function padded(box, fraction) {
    const pad = Math.max(box[2] - box[0], box[3] - box[1]) * fraction || 1;
    return [box[0] - pad, box[1] - pad, box[2] + pad, box[3] + pad];
  }

  function planeBox(plane) {
    const box = [Infinity, Infinity, -Infinity, -Infinity];
    for (const part of plane.parts) {
      for (let i = 0; i < part.n; i++) {
        const u = part.pts[2 * i];
        const v = part.pts[2 * i + 1];
        if (u < box[0]) box[0] = u; if (u > box[2]) box[2] = u;
        if (v < box[1]) box[1] = v; if (v > box[3]) box[3] = v;
      }
    }
    return box[0] <= box[2] ? box : [-1, -1, 1, 1];
  }

  function fit() { showBox(padded(planeBox(planes[state.plane]), 0.05)); }

  function zoomOverlap() {
    const box = planes[state.plane].overlap;
    if (box) showBox(padded(box, 0.08));
    status.textContent = box ? 'overlap of the first two layers' : 'the first two layers do not overlap here';
    return !!box;
  }

  // ---- Drawing --------------------------------------------------------------
  function rampColour(t) {
    const stops = [[68, 1, 84], [59, 82, 139], [33, 145, 140], [94, 201, 98], [253, 231, 37]];
    t = Math.min(1, Math.max(0, isFinite(t) ? t : 0)) * 4;
    const i = Math.min(Math.floor(t), 3);
    const f = t - i;
    const c = [0, 1, 2].map((k) => Math.round(stops[i][k] + (stops[i + 1][k] - stops[i][k]) * f));
    return 'rgb(' + c.join(',') + ')';
  }
  function distanceT(d) { return distHigh > distLow ? (d - distLow) / (distHigh - distLow) : 0.5; }

  // One polyline per run, skipping points that land on the pixel just drawn.
  function strokeRuns(part, runs) {
    ctx.beginPath();
    for (const [first, end] of runs) {
      if (end - first < 2) continue;
      let lx = toX(part.pts[2 * first]);
      let ly = toY(part.pts[2 * first + 1]);
      ctx.moveTo(lx, ly);
      for (let i = first + 1; i < end; i++) {
        const x = toX(part.pts[2 * i]);
        const y = toY(part.pts[2 * i + 1]);
        if (i + 1 < end && Math.abs(x - lx) < 0.5 && Math.abs(y - ly) < 0.5) continue;
        ctx.lineTo(x, y);
        lx = x; ly = y;
      }
    }
    ctx.stroke();
  }

  function blendRuns(part) {
    const out = [];
    for (const [first, end] of part.runs) {
      let i = first;
      while (i < end) {
        if (!part.blend[i]) { i++; continue; }
        let stop = i;
        while (stop < end && part.blend[stop]) stop++;
        out.push([i > first ? i - 1 : i, Math.min(stop + 1, end)]);
        i = stop;
      }
    }
    return out;
  }

  function marker(shape, x, y, r) {
    ctx.beginPath();
    if (shape === 0) ctx.arc(x, y, r, 0, 2 * Math.PI);
    else if (shape === 1) ctx.rect(x - r, y - r, 2 * r, 2 * r);
    else if (shape === 2) { ctx.moveTo(x, y - 1.2 * r); ctx.lineTo(x + 1.1 * r, y + 0.8 * r); ctx.lineTo(x - 1.1 * r, y + 0.8 * r); ctx.closePath(); }
    else { ctx.moveTo(x, y - 1.3 * r); ctx.lineTo(x + 1.3 * r, y); ctx.lineTo(x, y + 1.3 * r); ctx.lineTo(x - 1.3 * r, y); ctx.closePath(); }
    ctx.fill();
  }

  function inView(x, y) { return x >= -5 && y >= -5 && x <= state.width + 5 && y <= state.height + 5; }

  function drawPart(part, order, count) {
    const layer = layers[part.layer];
    const byDistance = options.distance.checked && part.dist;
    ctx.globalAlpha = 1;
    ctx.strokeStyle = layer.colour;
    ctx.lineWidth = 1.5 + 2.5 * (count - 1 - order) / Math.max(count - 1, 1);
    ctx.lineJoin = 'round';
    strokeRuns(part, part.runs);
    if (options.normals.checked && part.nrm) drawNormals(part, layer.colour);
    if (options.results.checked && part.res) drawResults(part, layer.colour);
    const zoomed = part.spacing * state.scale >= MARKER_SPACING_PX;
    if (byDistance) drawByDistance(part, zoomed);
    else drawMarkers(part, layer, zoomed && options.markers.checked);
  }

  // Markers in the layer's colour: every point in view when zoomed in, and
  // always the points of one-point segments, which a line cannot show.
  function drawMarkers(part, layer, all) {
    ctx.fillStyle = layer.colour;
    for (const [first, end] of part.runs) {
      if (!all && end - first !== 1) continue;
      for (let i = first; i < end; i++) {
        const x = toX(part.pts[2 * i]);
        const y = toY(part.pts[2 * i + 1]);
        if (inView(x, y)) marker(layer.index % 4, x, y, 3);
      }
    }
  }

  // Every point in view in the colour of its distance, drawn by colour band
  // so that the fill style changes once per band, not once per point.
  function drawByDistance(part, zoomed) {
    const BANDS = 32;
    const bandOf = (i) => Math.min(BANDS - 1, Math.max(0, Math.floor(distanceT(part.dist[i]) * BANDS)));
    if (zoomed) {
      // Few points are in view: a round marker each.
      const bands = Array.from({ length: BANDS }, () => []);
      for (let i = 0; i < part.n; i++) {
        const x = toX(part.pts[2 * i]);
        const y = toY(part.pts[2 * i + 1]);
        if (inView(x, y)) bands[bandOf(i)].push(x, y);
      }
      bands.forEach((xy, band) => {
        if (!xy.length) return;
        ctx.fillStyle = rampColour((band + 0.5) / BANDS);
        ctx.beginPath();
        for (let k = 0; k < xy.length; k += 2) {
          ctx.moveTo(xy[k] + 3, xy[k + 1]);
          ctx.arc(xy[k], xy[k + 1], 3, 0, 2 * Math.PI);
        }
        ctx.fill();
      });
      return;
    }
    // Crowded: one 2x2 cell per point, the last point in a cell gives its colour.
    const cols = Math.ceil(state.width / 2);
    const rows = Math.ceil(state.height / 2);
    const cells = new Int8Array(cols * rows).fill(-1);
    for (let i = 0; i < part.n; i++) {
      const cx = Math.floor(toX(part.pts[2 * i]) / 2);
      const cy = Math.floor(toY(part.pts[2 * i + 1]) / 2);
      if (cx >= 0 && cy >= 0 && cx < cols && cy < rows) cells[cy * cols + cx] = bandOf(i);
    }
    const bands = Array.from({ length: BANDS }, () => []);
    for (let c = 0; c < cells.length; c++) if (cells[c] >= 0) bands[cells[c]].push(c);
    bands.forEach((list, band) => {
      if (!list.length) return;
      ctx.fillStyle = rampColour((band + 0.5) / BANDS);
      for (const c of list) ctx.fillRect((c % cols) * 2 - 0.5, Math.floor(c / cols) * 2 - 0.5, 3, 3);
    });
  }

  function drawNormals(part, colour) {
    const length = 18 / state.scale;
    ctx.strokeStyle = colour;
    ctx.lineWidth = 0.8;
    ctx.beginPath();
    for (let i = 0; i < part.n; i++) {
      const u = part.pts[2 * i];
      const v = part.pts[2 * i + 1];
      const x = toX(u);
      const y = toY(v);
      if (!inView(x, y)) continue;
      ctx.moveTo(x, y);
      ctx.lineTo(toX(u + part.nrm[2 * i] * length), toY(v + part.nrm[2 * i + 1] * length));
    }
    ctx.stroke();
  }

  function drawResults(part, colour) {
    ctx.fillStyle = colour;
    for (let i = 0; i < part.res.length / 2; i++) {
      const x = toX(part.res[2 * i]);
      const y = toY(part.res[2 * i + 1]);
      if (inView(x, y)) ctx.fillRect(x - 1.5, y - 1.5, 3, 3);
    }
  }

  function draw() {
    const started = performance.now();
    ctx.fillStyle = '#fff';
    ctx.fillRect(0, 0, state.width, state.height);
    drawGrid();
    const plane = planes[state.plane];
    const shown = plane.parts.filter((p) => layers[p.layer].visible);
    if (options.blend.checked) {
      for (const part of shown) {
        if (!part.blend) continue;
        ctx.strokeStyle = BLEND_COLOUR;
        ctx.lineWidth = 12;
        ctx.lineCap = 'round';
        strokeRuns(part, blendRuns(part));
        ctx.lineCap = 'butt';
      }
    }
    shown.forEach((part, order) => drawPart(part, order, shown.length));
    state.lastDrawMs = performance.now() - started;
    planeLabel.textContent = 'plane ' + plane.id + ' (' + (state.plane + 1) + '/' + planes.length + ')';
    drawOverview();
    drawColourBar();
  }

  function niceStep(span, want) {
    const raw = span / want;
    const power = Math.pow(10, Math.floor(Math.log10(raw)));
    const f = raw / power;
    return (f < 1.5 ? 1 : f < 3.5 ? 2 : f < 7.5 ? 5 : 10) * power;
  }

  // The drawing's origin on its axes: labels and readouts are in file units.
  const originU = raw.frame.origin.reduce((sum, x, k) => sum + x * raw.frame.u[k], 0);
  const originV = raw.frame.origin.reduce((sum, x, k) => sum + x * raw.frame.v[k], 0);

  // A light grid with labels in file units along the left and bottom edges.
  function drawGrid() {
    const u0 = toU(0) + originU;
    const u1 = toU(state.width) + originU;
    const v0 = toV(state.height) + originV;
    const v1 = toV(0) + originV;
    const step = niceStep(Math.max(u1 - u0, v1 - v0), 10);
    ctx.strokeStyle = '#eee';
    ctx.lineWidth = 1;
    ctx.fillStyle = '#888';
    ctx.font = '11px sans-serif';
    ctx.beginPath();
    for (let u = Math.ceil(u0 / step) * step; u <= u1; u += step) {
      const x = toX(u - originU);
      ctx.moveTo(x, 0); ctx.lineTo(x, state.height);
      ctx.fillText(+u.toPrecision(6), x + 2, state.height - 4);
    }
    for (let v = Math.ceil(v0 / step) * step; v <= v1; v += step) {
      const y = toY(v - originV);
      ctx.moveTo(0, y); ctx.lineTo(state.width, y);
      ctx.fillText(+v.toPrecision(6), 2, y - 2);
    }
    ctx.stroke();
  }

  // ---- Overview: every plane stacked along the normal, seen obliquely -------
  const overview = document.getElementById('overview');
  const octx = overview.getContext('2d');
  let overviewShape = null;

  function overviewPoints() {
    const out = [];
    let box = [Infinity, Infinity, -Infinity, -Infinity];
    for (const p of planes) {
      for (const part of p.parts) {
        const stride = Math.max(1, Math.floor(part.n / 150));
        for (let i = 0; i < part.n; i += stride) {
          const x = part.pts[2 * i] + 0.6 * p.depth;
          const y = part.pts[2 * i + 1] + 0.35 * p.depth;
          out.push(x, y);
          box = [Math.min(box[0], x), Math.min(box[1], y), Math.max(box[2], x), Math.max(box[3], y)];
        }
      }
    }
    const s = Math.min((overview.width - 10) / Math.max(box[2] - box[0], 1e-9),
      (overview.height - 10) / Math.max(box[3] - box[1], 1e-9));
    return { pts: out, box: box, s: s };
  }

  function drawOverview() {
    if (!overviewShape) overviewShape = overviewPoints();
    const o = overviewShape;
    const X = (x) => 5 + (x - o.box[0]) * o.s;
    const Y = (y) => overview.height - 5 - (y - o.box[1]) * o.s;
    octx.fillStyle = '#fff';
    octx.fillRect(0, 0, overview.width, overview.height);
    octx.fillStyle = '#9ab';
    for (let i = 0; i < o.pts.length; i += 2) octx.fillRect(X(o.pts[i]), Y(o.pts[i + 1]), 1, 1);
    const p = planes[state.plane];
    octx.fillStyle = '#d62728';
    for (const part of p.parts) {
      const stride = Math.max(1, Math.floor(part.n / 400));
      for (let i = 0; i < part.n; i += stride)
        octx.fillRect(X(part.pts[2 * i] + 0.6 * p.depth) - 1, Y(part.pts[2 * i + 1] + 0.35 * p.depth) - 1, 2, 2);
    }
  }

  function drawColourBar() {
    const box = document.getElementById('colorbar-box');
    const on = options.distance.checked && distLow <= distHigh;
    box.classList.toggle('on', on);
    if (!on) return;
    const bar = document.getElementById('colorbar');
    const b = bar.getContext('2d');
    b.fillStyle = '#fff';
    b.fillRect(0, 0, bar.width, bar.height);
    for (let x = 0; x < bar.width - 10; x++) {
      b.fillStyle = rampColour(x / (bar.width - 11));
      b.fillRect(5 + x, 4, 1, 18);
    }
    b.fillStyle = '#222';
    b.font = '11px sans-serif';
    b.fillText(distLow.toPrecision(4), 5, 38);
    const high = distHigh.toPrecision(4);
    b.fillText(high, bar.width - 5 - b.measureText(high).width, 38);
  }

  // ---- The point under the cursor -------------------------------------------
  function pick(x, y) {
    let best = null;
    let bestD = PICK_RADIUS_PX * PICK_RADIUS_PX;
    for (const part of planes[state.plane].parts) {
      if (!layers[part.layer].visible) continue;
      for (let i = 0; i < part.n; i++) {
        const dx = toX(part.pts[2 * i]) - x;
        const dy = toY(part.pts[2 * i + 1]) - y;
        const d = dx * dx + dy * dy;
        if (d < bestD) { bestD = d; best = { part: part, index: i }; }
      }
    }
    return best;
  }

  function coordinates(part, i) {
    const f = raw.frame;
    const u = part.pts[2 * i];
    const v = part.pts[2 * i + 1];
    const w = part.w ? part.w[i] : 0;
    return [0, 1, 2].map((k) => f.origin[k] + u * f.u[k] + v * f.v[k] + w * f.n[k]);
  }

  function showReadout(hit) {
    if (!hit) { readout.textContent = 'no point under the cursor'; return; }
    const layer = layers[hit.part.layer];
    const c = coordinates(hit.part, hit.index).map((x) => x.toPrecision(7));
    let segment = 0;
    hit.part.runs.forEach(([first, end], s) => { if (hit.index >= first && hit.index < end) segment = s; });
    readout.textContent =
      'file     ' + raw.files[layer.file] + '\n' +
      'plane    ' + planes[state.plane].id + '\n' +
      'subset   ' + layer.subset + '\n' +
      'index    ' + hit.index + ' (segment ' + segment + ')\n' +
      'x y z    ' + c.join(' ') + '\n' +
      'distance ' + (hit.part.dist ? hit.part.dist[hit.index].toPrecision(6) : '-') +
      (hit.part.blend && hit.part.blend[hit.index] ? '\nblended' : '');
  }

  // ---- Interaction ----------------------------------------------------------
  let pending = false;
  function redraw() {
    if (pending) return;
    pending = true;
    requestAnimationFrame(() => { pending = false; draw(); });
  }

  function setPlane(index) {
    state.plane = Math.min(planes.length - 1, Math.max(0, index));
    slider.value = String(state.plane);
    draw();
  }

  function toggleLayer(index) {
    layers[index].visible = !layers[index].visible;
    legendButtons[index].classList.toggle('off', !layers[index].visible);
    draw();
  }

  function zoomAt(x, y, factor) {
    const u = toU(x);
    const v = toV(y);
    state.scale *= factor;
    state.offU = u - x / state.scale;
    state.offV = v - (state.height - y) / state.scale;
    redraw();
  }

  const legend = document.getElementById('legend');
  const legendButtons = layers.map((layer, i) => {
    const b = document.createElement('button');
    b.type = 'button';
    b.dataset.layer = String(i);
    const swatch = document.createElement('span');
    swatch.className = 'swatch';
    swatch.style.background = layer.colour;
    b.appendChild(swatch);
    b.appendChild(document.createTextNode(layer.label));
    b.addEventListener('click', () => toggleLayer(i));
    legend.appendChild(b);
    return b;
  });

  slider.max = String(planes.length - 1);
  slider.addEventListener('input', () => setPlane(Number(slider.value)));
  document.addEventListener('keydown', (e) => {
    if (e.target instanceof HTMLInputElement && e.target.type === 'range') return;
    if (e.key === 'ArrowRight' || e.key === 'ArrowUp') { setPlane(state.plane + 1); e.preventDefault(); }
    if (e.key === 'ArrowLeft' || e.key === 'ArrowDown') { setPlane(state.plane - 1); e.preventDefault(); }
  });
  document.getElementById('fit').addEventListener('click', () => { fit(); draw(); });
  document.getElementById('zoom-overlap').addEventListener('click', () => { zoomOverlap(); draw(); });
  for (const key of Object.keys(options)) options[key].addEventListener('change', draw);

  canvas.addEventListener('wheel', (e) => {
    e.preventDefault();
    zoomAt(e.offsetX, e.offsetY, Math.exp(-e.deltaY * 0.0015));
  }, { passive: false });

  // Drag pans; two pointers (touch) pinch-zoom about their middle.
  const pointers = new Map();
  canvas.addEventListener('pointerdown', (e) => {
    canvas.setPointerCapture(e.pointerId);
    pointers.set(e.pointerId, { x: e.offsetX, y: e.offsetY });
  });
  canvas.addEventListener('pointermove', (e) => {
    const last = pointers.get(e.pointerId);
    if (!last) {
      showReadout(pick(e.offsetX, e.offsetY));
      return;
    }
    if (pointers.size === 1) {
      state.offU -= (e.offsetX - last.x) / state.scale;
      state.offV += (e.offsetY - last.y) / state.scale;
      redraw();
    } else if (pointers.size === 2) {
      const other = [...pointers.entries()].find(([id]) => id !== e.pointerId)[1];
      const before = Math.hypot(last.x - other.x, last.y - other.y);
      const after = Math.hypot(e.offsetX - other.x, e.offsetY - other.y);
      if (before > 0 && after > 0) zoomAt((e.offsetX + other.x) / 2, (e.offsetY + other.y) / 2, after / before);
    }
    pointers.set(e.pointerId, { x: e.offsetX, y: e.offsetY });
  });
  const release = (e) => pointers.delete(e.pointerId);
  canvas.addEventListener('pointerup', release);
  canvas.addEventListener('pointercancel', release);

  overview.addEventListener('click', (e) => {
    // The plane whose drawn depth is nearest the click, along the stacking direction.
    const o = overviewShape;
    let best = 0;
    let bestD = Infinity;
    planes.forEach((p, i) => {
      const box = planeBox(p);
      const cx = 5 + ((box[0] + box[2]) / 2 + 0.6 * p.depth - o.box[0]) * o.s;
      const cy = overview.height - 5 - ((box[1] + box[3]) / 2 + 0.35 * p.depth - o.box[1]) * o.s;
      const d = Math.hypot(cx - e.offsetX, cy - e.offsetY);
      if (d < bestD) { bestD = d; best = i; }
    });
    setPlane(best);
  });

  window.addEventListener('resize', () => { resize(); draw(); });

  resize();
  fit();
  draw();

  // For tests and benchmarks.
  window.luafxsView = {
    state: state, layers: layers, planes: planes, draw: draw, setPlane: setPlane,
    toggleLayer: toggleLayer, zoomOverlap: zoomOverlap, fit: fit, pick: pick,
    showReadout: showReadout,
  };
}());
