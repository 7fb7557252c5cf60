// The page of `tervainctl view`: the guest's screen, refreshed as fast as frames arrive; the
// frontmost application's tree; outlines of elements under the mouse; and, with the
// interactive switch on, clicks and typing sent to the guest.
'use strict';

const token = new URLSearchParams(location.search).get('token') || '';
const $ = (id) => document.getElementById(id);
const shot = $('shot');
let imageScale = 1;   // image pixels per point, of the frame shown
let shownWidth = 0;   // pixel width of the frame shown (the element reads 0 while the next loads)
let nodesByRef = new Map();
let hotRow = null;

function api(path, options = {}) {
  const url = path + (path.includes('?') ? '&' : '?') + 'token=' + encodeURIComponent(token);
  return fetch(url, { cache: 'no-store', ...options });
}

async function apiJson(path, options) {
  const response = await api(path, options);
  const body = await response.json();
  if (body.reopened) loadTree();  // a new agent connection: the refs shown are gone
  return body;
}

// ---- The screen: the next frame is asked for only once the last one is shown.
let frames = 0;
async function nextFrame() {
  try {
    const width = Math.max(320, Math.round(shot.parentElement.parentElement.clientWidth * devicePixelRatio));
    const response = await api('/api/screenshot?maxWidth=' + Math.min(width, 3840));
    if (response.ok && response.headers.get('Content-Type') === 'image/jpeg') {
      const scale = parseFloat(response.headers.get('X-Image-Scale')) || 1;
      const url = URL.createObjectURL(await response.blob());
      const loaded = await new Promise((resolve) => {
        shot.onload = () => resolve(true);
        shot.onerror = () => resolve(false);
        const old = shot.src;
        shot.src = url;
        if (old.startsWith('blob:')) URL.revokeObjectURL(old);
      });
      if (loaded) {
        imageScale = scale;
        shownWidth = shot.naturalWidth;
        ++frames;
      }
    } else {
      await new Promise((r) => setTimeout(r, 1000));
    }
  } catch (e) {
    await new Promise((r) => setTimeout(r, 1000));
  }
  requestAnimationFrame(nextFrame);
}
setInterval(() => { $('fps').textContent = frames + ' fps'; frames = 0; }, 1000);

// Display pixels of the shown image per guest point.
function pointsToDisplay() {
  return shownWidth ? (shot.clientWidth / shownWidth) * imageScale : 0;
}

function showOutline(frame) {
  const outline = $('outline');
  const k = pointsToDisplay();
  if (!frame || !k) { outline.hidden = true; return; }
  outline.style.left = frame.x * k + 'px';
  outline.style.top = frame.y * k + 'px';
  outline.style.width = Math.max(2, frame.w * k) + 'px';
  outline.style.height = Math.max(2, frame.h * k) + 'px';
  outline.hidden = false;
}

function describe(node) {
  const parts = [node.ref, node.role || '?'];
  if (node.title) parts.push(JSON.stringify(node.title));
  if (node.value !== undefined && node.value !== '') parts.push('= ' + JSON.stringify(String(node.value)));
  return parts.join(' ');
}

function eventPoint(event) {
  const k = pointsToDisplay();
  const box = shot.getBoundingClientRect();
  return { x: Math.round((event.clientX - box.left) / k), y: Math.round((event.clientY - box.top) / k) };
}

// ---- Hovering the screen: the deepest element there, one question in flight at a time.
let hitBusy = false, hitPending = null;
async function hitTest(point) {
  if (hitBusy) { hitPending = point; return; }
  hitBusy = true;
  try {
    const reply = await apiJson(`/api/hit?x=${point.x}&y=${point.y}`);
    if (reply.ok && reply.node) {
      showOutline(reply.node.frame);
      $('hover').textContent = `(${point.x}, ${point.y}) ` + describe(reply.node);
      highlightSame(reply.node);
    } else {
      $('hover').textContent = `(${point.x}, ${point.y}) ` + (reply.error || '');
    }
  } finally {
    hitBusy = false;
    if (hitPending) { const p = hitPending; hitPending = null; hitTest(p); }
  }
}

// The tree row of the element the hit test found: same role and frame.
function highlightSame(hit) {
  if (hotRow) hotRow.classList.remove('hot');
  hotRow = null;
  for (const [, entry] of nodesByRef) {
    const n = entry.node, f = n.frame, g = hit.frame;
    if (f && g && n.role === hit.role && f.x === g.x && f.y === g.y && f.w === g.w && f.h === g.h) {
      hotRow = entry.row;
    }
  }
  if (hotRow) { hotRow.classList.add('hot'); hotRow.scrollIntoView({ block: 'nearest' }); }
}

shot.addEventListener('mousemove', (event) => { if (pointsToDisplay()) hitTest(eventPoint(event)); });
shot.addEventListener('mouseleave', () => showOutline(null));
shot.addEventListener('click', async (event) => {
  if (!$('interactive').checked || !pointsToDisplay()) return;
  const point = eventPoint(event);
  const reply = await apiJson('/api/input', { method: 'POST', body: JSON.stringify({ op: 'click', ...point }) });
  $('hover').textContent = reply.ok ? `clicked (${point.x}, ${point.y})` : reply.error;
  setTimeout(loadTree, 300);
});
$('interactive').addEventListener('change', (e) => $('screen').classList.toggle('interactive', e.target.checked));

async function sendInput(request) {
  const reply = await apiJson('/api/input', { method: 'POST', body: JSON.stringify(request) });
  $('hover').textContent = reply.ok ? 'sent ' + request.op : reply.error;
}
$('typeForm').addEventListener('submit', (e) => {
  e.preventDefault();
  if ($('typeText').value) sendInput({ op: 'type', text: $('typeText').value });
  $('typeText').value = '';
});
$('keyForm').addEventListener('submit', (e) => {
  e.preventDefault();
  if ($('keyChord').value) sendInput({ op: 'key', key: $('keyChord').value });
});

// ---- The tree.
function renderNode(node) {
  const label = document.createElement('span');
  for (const [cls, text] of [['ref', node.ref], ['role', ' ' + (node.role || '?')],
                             ['title', node.title ? ' ' + JSON.stringify(node.title) : ''],
                             ['value', node.value !== undefined && node.value !== '' ? ' = ' + JSON.stringify(String(node.value)) : '']]) {
    if (!text) continue;
    const part = document.createElement('span');
    part.className = cls;
    part.textContent = text;
    label.append(part);
  }
  let element, row;
  if (node.children && node.children.length) {
    element = document.createElement('details');
    element.open = true;
    row = document.createElement('summary');
    row.append(label);
    element.append(row);
    for (const child of node.children) element.append(renderNode(child));
  } else {
    element = row = document.createElement('div');
    row.className = 'leaf';
    row.append(label);
  }
  row.dataset.ref = node.ref;
  row.addEventListener('mouseenter', () => showOutline(node.frame));
  row.addEventListener('mouseleave', () => showOutline(null));
  nodesByRef.set(node.ref, { node, row });
  return element;
}

let treeBusy = false;
async function loadTree() {
  if (treeBusy) return;
  treeBusy = true;
  try {
    const reply = await apiJson('/api/tree');
    const tree = $('tree');
    tree.textContent = '';
    nodesByRef = new Map();
    if (reply.ok && reply.tree) {
      $('appName').textContent = reply.app || 'tree';
      tree.append(renderNode(reply.tree));
    } else {
      tree.textContent = reply.error || 'no tree';
    }
  } finally {
    treeBusy = false;
  }
}
$('refresh').addEventListener('click', loadTree);

// ---- The status line.
async function loadStatus() {
  try {
    const s = await apiJson('/api/status');
    if (!s.ok) { $('status').textContent = s.error; return; }
    const r = s.readiness || {};
    const yes = (b) => (b ? 'yes' : 'no');
    $('status').textContent = `agent ${s.agentVersion || '?'} (${s.desktop || '?'} desktop) at ${s.agent}` +
      ` | accessibility ${yes(r.accessibility)}, screen ${yes(r.screenRecording)}, input ${yes(r.postEvent)}` +
      ` | round trip ${s.rttMs.toFixed(1)} ms`;
  } catch (e) {
    $('status').textContent = 'tervainctl view is not answering';
  }
}

loadStatus();
setInterval(loadStatus, 5000);
loadTree();
nextFrame();
