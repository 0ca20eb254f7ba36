#include "tools/pmctl/boot_page_parts.h"

namespace PmCtl {

const char* const kDrawingStyle = R"css(
text { font: 11px sans-serif; fill: currentColor; white-space: pre; }
.grid { stroke: #8886; } .t2, .t3, .whole { display: none; }
.checks { fill: #b07aa1; } .fork { fill: #f28e2b; } .ready { fill: #4e79a7; } .open { fill: #59a14f; }
.init, .priority, .continue, .pause { fill: #9a9a9a; } .pending { fill-opacity: .5; }
.critical { stroke: #d62728; stroke-width: 1.5; } .chain { fill: #d62728; }
)css";

// Nothing is fetched, whatever stands in the page.
const char* const kPageHead = R"html(<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8">
<meta http-equiv="Content-Security-Policy"
      content="default-src 'none'; style-src 'unsafe-inline'; script-src 'unsafe-inline'">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>The boot</title>
)html";

const char* const kPageStyle = R"css(
:root { color-scheme: light dark; }
html, body { height: 100%; margin: 0; }
body { display: flex; flex-direction: column; font: 14px sans-serif; }
header { display: flex; flex-wrap: wrap; gap: 6px 10px; align-items: center; padding: 6px; }
input, button { font: inherit; min-height: 32px; } button { min-width: 36px; }
input { flex: 1 1 120px; max-width: 240px; }
#legend { width: 420px; max-width: 100%; } #box { flex: 1; overflow: auto; touch-action: pan-x pan-y; }
#inner { width: 100%; } #inner > svg { display: block; width: 100%; }
#axis { position: sticky; top: 0; background: Canvas; z-index: 1; }
.middle .t2, .fine .t2, .fine .t3 { display: inline; }
.row .whole { display: inline; fill: transparent; } .row:hover .whole { fill: #8883; }
#tip { position: fixed; max-width: min(420px, 80vw); padding: 4px 8px; pointer-events: none; z-index: 2;
       background: Canvas; color: CanvasText; border: 1px solid #888; border-radius: 4px; }
#tip[hidden] { display: none; }
)css";

const char* const kPageControls = R"html(
<input id="search" type="search" placeholder="search" aria-label="search for a name">
<span id="found"></span>
<button id="in" aria-label="zoom in">+</button><button id="out" aria-label="zoom out">&minus;</button>
<button id="all">all</button>
)html";

const char* const kPageScript = R"js(
'use strict';
const by = id => document.getElementById(id);
const box = by('box'), inner = by('inner'), picture = by('rows'), tip = by('tip'), search = by('search');
const rows = [...document.querySelectorAll('.row')];
const rowHeight = rows.length ? picture.getAttribute('height') / rows.length : 0;
for (const row of rows) {  // The page's own tip tells the numbers, on a phone too.
  const title = row.querySelector('title');
  row.dataset.text = title.textContent;
  title.remove();
}
let scale = 1;

function find() {
  const wanted = search.value.toLowerCase();
  let shown = 0;
  for (const row of rows) {
    const isFound = row.dataset.name.toLowerCase().includes(wanted);
    row.style.display = isFound ? '' : 'none';
    if (isFound) row.setAttribute('transform', `translate(0,${shown++ * rowHeight})`);
  }
  picture.setAttribute('height', shown * rowHeight);
  by('found').textContent = wanted ? `${shown} of ${rows.length}` : '';
}

// What is `at` pixels from the left edge stays there.
function zoom(to, at = box.clientWidth / 2) {
  to = Math.min(Math.max(to, 1), 100);
  const place = (box.scrollLeft + at) / inner.clientWidth;
  scale = to;
  inner.style.width = 100 * to + '%';
  inner.className = to < 4 ? 'coarse' : to < 20 ? 'middle' : 'fine';
  box.scrollLeft = place * inner.clientWidth - at;
}

function tell(event) {
  const row = event.target.closest('.row');
  tip.hidden = !row;
  if (!row) return;
  tip.textContent = row.dataset.text;
  const left = Math.min(event.clientX + 12, innerWidth - tip.offsetWidth - 4);
  const below = event.clientY + 18;
  tip.style.left = Math.max(left, 4) + 'px';
  tip.style.top = (below + tip.offsetHeight < innerHeight ? below : event.clientY - tip.offsetHeight - 8) + 'px';
}

search.addEventListener('input', find);
by('in').addEventListener('click', () => zoom(scale * 2));
by('out').addEventListener('click', () => zoom(scale / 2));
by('all').addEventListener('click', () => { search.value = ''; find(); zoom(1); });
box.addEventListener('wheel', event => {
  if (!event.ctrlKey) return;
  event.preventDefault();
  zoom(scale * (event.deltaY < 0 ? 1.25 : 0.8), event.clientX - box.getBoundingClientRect().left);
}, {passive: false});
for (const kind of ['pointerover', 'pointermove', 'pointerdown']) box.addEventListener(kind, tell);
box.addEventListener('pointerleave', event => { if (event.pointerType === 'mouse') tip.hidden = true; });
)js";

}  // namespace PmCtl
