// The report's "set corners" mode: for a capture the batch could not align
// well, the capture at full size (zoomable), four clicks or drags of a quad
// for its screen's corners, and a "save hints" that downloads hints.csv for
// the next run (--hints). All in the page: it opens from disk, no server.
#include <string>

#include "batch/report.h"

namespace {

const char kStyle[] =
    R"(#setter{position:fixed;inset:0;background:rgba(24,24,24,.96);color:#eee;display:flex;flex-direction:column;z-index:10}
#setter[hidden],#next[hidden]{display:none}#setter .bar{padding:8px 12px;display:flex;gap:8px;align-items:center;flex-wrap:wrap}
#set-view{flex:1;overflow:auto}#set-stage{position:relative;margin:auto}#set-stage img{width:100%;height:100%;display:block;max-width:none}
#set-svg{position:absolute;left:0;top:0;width:100%;height:100%;cursor:crosshair;touch-action:none}
.quad{fill:rgba(60,220,60,.12);stroke:#3d3;stroke-width:2;vector-effect:non-scaling-stroke}
.handle{fill:rgba(255,200,0,.5);stroke:#fc0;stroke-width:2;vector-effect:non-scaling-stroke;cursor:move}
#hints-bar{position:sticky;top:0;background:#fffbe6;padding:6px 10px;border:1px solid #eed;z-index:5}
button.set{margin-top:4px})";

// The panel's script. Corners are kept in capture pixels: the overlay's
// viewBox is the full-size picture's own size, which is the capture's.
const char kScript[] = R"JS((() => {
const $ = s => document.getElementById(s), NS = 'http://www.w3.org/2000/svg';
const panel = $('setter'), img = $('set-img'), svg = $('set-svg'), stage = $('set-stage'), view = $('set-view');
const names = ['top-left', 'top-right', 'bottom-left', 'bottom-right'], hints = new Map();
let row = null, points = [], zoom = 1, dragging = -1;
const chunk = v => [0, 1, 2, 3].map(i => [v[2 * i], v[2 * i + 1]]);
function at(e) {
  const p = svg.createSVGPoint(); p.x = e.clientX; p.y = e.clientY;
  const q = p.matrixTransform(svg.getScreenCTM().inverse()); return [q.x, q.y];
}
function draw() {
  svg.replaceChildren();
  if (points.length > 1) {
    const line = document.createElementNS(NS, points.length === 4 ? 'polygon' : 'polyline');
    line.setAttribute('points', [0, 1, 3, 2].filter(i => i < points.length).map(i => points[i].join(',')).join(' '));
    line.setAttribute('class', 'quad'); svg.appendChild(line);
  }
  points.forEach((p, i) => {
    const c = document.createElementNS(NS, 'circle');
    c.setAttribute('cx', p[0]); c.setAttribute('cy', p[1]); c.setAttribute('r', 7 / zoom);
    c.setAttribute('class', 'handle'); c.dataset.corner = i;
    const t = document.createElementNS(NS, 'title'); t.textContent = names[i]; c.appendChild(t); svg.appendChild(c);
  });
  $('set-help').textContent = points.length < 4 ? `Click the screen's ${names[points.length]} corner (of the picture shown, as in the reference)`
    : 'Drag a corner to move it, then "done"';
  $('set-done').disabled = points.length < 4;
}
function show(z) {
  zoom = z; stage.style.width = img.naturalWidth * zoom + 'px'; stage.style.height = img.naturalHeight * zoom + 'px'; draw();
}
const fit = () => show(Math.min(view.clientWidth / img.naturalWidth, view.clientHeight / img.naturalHeight));
function open(r) {
  row = r;
  const given = (r.dataset.corners || '').split(' ').filter(s => s).map(Number);
  points = hints.has(r.dataset.id) ? chunk(hints.get(r.dataset.id))
    : given.length === 8 && given.every(isFinite) ? chunk(given) : [];
  $('set-id').textContent = r.dataset.id;
  panel.hidden = false;
  img.onload = () => { svg.setAttribute('viewBox', `0 0 ${img.naturalWidth} ${img.naturalHeight}`); fit(); };
  img.src = 'report/full/' + r.dataset.file + '.plain.jpg';
}
svg.addEventListener('pointerdown', e => {
  e.preventDefault();
  if (e.target.dataset && e.target.dataset.corner !== undefined) {
    dragging = +e.target.dataset.corner; svg.setPointerCapture(e.pointerId);
  } else if (points.length < 4) { points.push(at(e)); draw(); }
});
svg.addEventListener('pointermove', e => { if (dragging >= 0) { points[dragging] = at(e); draw(); } });
svg.addEventListener('pointerup', () => { dragging = -1; });
$('zoom-in').onclick = () => show(zoom * 1.5);
$('zoom-out').onclick = () => show(zoom / 1.5);
$('zoom-fit').onclick = fit;
$('set-clear').onclick = () => { points = []; draw(); };
$('set-cancel').onclick = () => { panel.hidden = true; };
$('set-done').onclick = () => {
  hints.set(row.dataset.id, points.flat());
  row.querySelector('button.set').textContent = 'corners set (change)';
  $('hint-count').textContent = hints.size; $('save-hints').disabled = false; panel.hidden = true;
};
const quoted = s => /[",\n\r]/.test(s) ? '"' + s.replace(/"/g, '""') + '"' : s;
$('save-hints').onclick = () => {
  const lines = ['id,x1,y1,x2,y2,x3,y3,x4,y4'];
  hints.forEach((v, id) => lines.push([quoted(id), ...v.map(x => x.toFixed(2))].join(',')));
  const a = document.createElement('a');
  a.href = URL.createObjectURL(new Blob([lines.join('\n') + '\n'], {type: 'text/csv'}));
  a.download = 'hints.csv'; document.body.appendChild(a); a.click(); a.remove();
  $('next').hidden = false;
};
document.querySelectorAll('button.set').forEach(b => b.addEventListener('click', () => open(b.closest('tr'))));
})();)JS";

std::string escaped_text(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '&')
      out += "&amp;";
    else if (c == '<')
      out += "&lt;";
    else if (c == '>')
      out += "&gt;";
    else
      out += c;
  }
  return out;
}

}  // namespace

const char* corners_style() { return kStyle; }
const char* corners_script() { return kScript; }

std::string corners_panel(const std::string& command) {
  const std::string next = command.empty()
                               ? "framealign-batch &lt;the run's options&gt; --hints hints.csv"
                               : escaped_text(command) + " --hints hints.csv";
  return "<div id='hints-bar'>Captures marked <b>set corners</b> ended not_found, error or with an "
         "estimate "
         "over 1 px: click the corners of their screen, then <button id='save-hints' disabled>save "
         "hints</button> "
         "(<span id='hint-count'>0</span> set)<p id='next' hidden>hints.csv is in your browser's "
         "download folder. "
         "Run next (with the file's path): <code id='next-command'>" +
         next +
         "</code></p></div>\n"
         "<div id='setter' hidden><div class='bar'><b id='set-id'></b><span id='set-help'></span>"
         "<button id='zoom-out'>&minus;</button><button id='zoom-fit'>fit</button><button "
         "id='zoom-in'>+</button>"
         "<button id='set-clear'>clear</button><button id='set-done' disabled>done</button>"
         "<button id='set-cancel'>cancel</button></div><div id='set-view'><div id='set-stage'>"
         "<img id='set-img' alt='the capture at full size'><svg id='set-svg' "
         "preserveAspectRatio='none'></svg>"
         "</div></div></div>\n";
}
