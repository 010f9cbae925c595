// The style sheet and the script of the report page, kept apart from the C++ that fills it in.

#include "report_page/page_assets.hpp"

namespace report_page
{

const char* const kPageScript = R"js(
"use strict";
(function () {
  var started = performance.now();
  var problems = [];
  window.addEventListener("error", function (e) { problems.push("error: " + e.message); });
  document.addEventListener("securitypolicyviolation", function (e) { problems.push("blocked: " + e.blockedURI); });

  var data = JSON.parse(document.getElementById("report-data").textContent);
  var columns = data.columns;
  var rows = data.rows;
  var sets = data.sets;
  // Previews are base64 lines of a text element, split only when one is first shown. The elements
  // come after this script, so that the table is drawn before the browser has read them: until
  // then there is no preview.
  var previewLines = {};
  function line(element, k) {
    if (!previewLines[element]) {
      var node = document.readyState === "loading" ? null : document.getElementById(element);
      if (!node) return "";
      previewLines[element] = node.textContent.split("\n");
    }
    var text = previewLines[element][k + 1];
    return text ? "data:image/png;base64," + text : "";
  }
  function preview(i) { return line("previews", i); }
  var renderModes = [
    {name: "render sets", element: "previews", when: "after optimisation", key: "each render set in its colour below"},
    {name: "wireframe", element: "wireframe-previews", when: "after optimisation", key: "the visible triangles' edges"},
    {name: "UV density", element: "uv-previews", when: "after optimisation",
     key: "texel density against the median: blue half or less, green the median, red double or more"},
    {name: "vertex cache", element: "cache-previews", when: "before (left) and after (right) optimisation", wide: true,
     key: "each triangle by the vertices it adds to a 16-entry cache: green 0, yellow 1, orange 2, red 3"}];
  function modeCaption(mode) { return mode.when + " &middot; " + mode.name + " &middot; " + mode.key; }
  function levelPreview(k) { return line("level-previews", k); }
  // The model's chain of levels of detail, main model first, previews side by side.
  function levelsHtml(i, main) {
    var levels = (data.levels || [])[i] || [], note = (data.levelNotes || [])[i] || "";
    if (!levels.length && !note) return "";
    var html = ["<h4>Levels of detail</h4>"];
    if (levels.length) html.push('<div class="chain">');
    var figure = function (image, caption) {
      return '<figure>' + (image ? '<img class="preview" alt="" width="256" height="256" src="' + image + '">' : "") +
             "<figcaption>" + caption + "</figcaption></figure>";
    };
    if (levels.length) html.push(figure(main, "main model: " + rows[i][data.trianglesColumn] + " triangles"));
    levels.forEach(function (l) {
      html.push(figure(levelPreview(l[7]), "level " + l[0] + ": " + l[1] + " triangles (" + (l[6] === null ? "" : l[6].toFixed(2)) +
                       " of the level before), error " + (l[4] === null ? "" : l[4].toPrecision(3)) +
                       (l[5] === null ? "" : " (" + (l[5] * 100).toFixed(2) + "% of the model)") + ", " + l[3] + " B"));
    });
    if (levels.length) html.push("</div>");
    if (note === "ended-early") html.push('<p class="muted">The chain ended early: a further level would have removed less than a tenth of the triangles.</p>');
    if (note === "hand-made") html.push('<p class="muted">The artist made this model\'s levels: they are converted from lods/ instead.</p>');
    if (note === "not-a-main-model") html.push('<p class="muted">Named or placed like a level itself: no levels are made for it.</p>');
    return html.join("");
  }

  var table = document.getElementById("models");
  var head = table.tHead.rows[0];
  var body = table.tBodies[0];
  var scroller = document.getElementById("scroller");
  var filterBox = document.getElementById("filter");
  var onlyProblems = document.getElementById("only-problems");
  var counter = document.getElementById("shown");
  var detail = document.getElementById("detail");
  var rowHeight = 30;
  var order = rows.map(function (r, i) { return i; });
  var shown = order.slice();
  var sortColumn = -1, sortDescending = false;

  columns.forEach(function (c, i) {
    if (i === data.outputColumn) return;
    var th = document.createElement("th");
    th.textContent = c.title;
    th.title = c.hint || "";
    th.dataset.column = i;
    th.className = cellClass(i);
    th.addEventListener("click", function () { sortBy(i, sortColumn === i ? !sortDescending : c.numeric); });
    head.appendChild(th);
  });

  // Each column's cells by kind: numbers right-aligned; paths cut at their start, so that the file
  // name stays in view; the output path only in a model's detail, to leave the figures room.
  function cellClass(c, value) {
    if (columns[c].numeric) return "num";
    if (c === data.sourceColumn) return "path";
    if (c === data.cacheColumn && value) return "cache-" + value.replace(/[^a-z]+/g, "-");
    return "";
  }
  // The cache column's colours are explained once, above the table, in a run that used a cache.
  if (rows.some(function (r) { return r[data.cacheColumn]; }))
    document.getElementById("cache-legend").hidden = false;

  function text(value, column) {
    if (value === null || value === undefined) return "";
    if (!column.numeric) return String(value);
    if (column.digits !== undefined) return value.toFixed(column.digits);
    return value.toLocaleString("en-US");
  }

  function compare(column) {
    var numeric = columns[column].numeric;
    return function (a, b) {
      var x = rows[a][column], y = rows[b][column];
      var xMissing = x === null || x === undefined, yMissing = y === null || y === undefined;
      if (xMissing || yMissing) return xMissing === yMissing ? a - b : (xMissing ? 1 : -1);
      var d = numeric ? x - y : (x < y ? -1 : x > y ? 1 : 0);
      if (d === 0) return a - b;
      return sortDescending ? -d : d;
    };
  }

  function sortBy(column, descending) {
    sortColumn = column;
    sortDescending = descending;
    order.sort(compare(column));
    Array.prototype.forEach.call(head.cells, function (th) {
      // The first header cell is the thumbnails', with no column.
      var sorted = th.dataset.column !== undefined && Number(th.dataset.column) === column;
      th.classList.toggle("sorted", sorted);
      th.classList.toggle("descending", sorted && descending);
    });
    applyFilter();
  }

  function applyFilter() {
    var needle = filterBox.value.trim().toLowerCase();
    var problemsOnly = onlyProblems.checked;
    shown = order.filter(function (i) {
      var r = rows[i];
      if (problemsOnly && r[data.statusColumn] !== "failed" && r[data.statusColumn] !== "converted with errors" &&
          !r[data.warningsColumn]) return false;
      if (!needle) return true;
      return (r[data.sourceColumn] + "\n" + r[data.outputColumn] + "\n" + r[data.statusColumn]).toLowerCase().indexOf(needle) >= 0;
    });
    counter.textContent = shown.length + " of " + rows.length + " models";
    draw();
  }

  function draw() {
    var first = Math.max(0, Math.floor(scroller.scrollTop / rowHeight) - 5);
    var count = Math.ceil(scroller.clientHeight / rowHeight) + 10;
    var last = Math.min(shown.length, first + count);
    // Rows outside the view are two spacer rows of the same height, so the scroll bar is right.
    var span = head.cells.length;
    var html = ['<tr class="spacer"><td colspan="' + span + '" style="height:' + first * rowHeight + 'px"></td></tr>'];
    for (var k = first; k < last; ++k) {
      var i = shown[k], r = rows[i];
      var cells = ['<tr data-model="' + i + '" class="' + r[data.statusColumn] + '">'];
      var image = preview(i);
      cells.push('<td class="thumb">' + (image ? '<img alt="" width="26" height="26" src="' + image + '">' : "") + "</td>");
      for (var c = 0; c < columns.length; ++c) {
        if (c === data.outputColumn) continue;
        var value = escape(text(r[c], columns[c]));
        var kind = cellClass(c, r[c]);
        // A path is shown whole on hover; the mark keeps its slashes in place when it is cut.
        cells.push(kind.indexOf("path") === 0 ? '<td class="' + kind + '" title="' + value + '">\u200E' + value + "\u200E</td>"
                                              : "<td" + (kind ? ' class="' + kind + '"' : "") + ">" + value + "</td>");
      }
      cells.push("</tr>");
      html.push(cells.join(""));
    }
    html.push('<tr class="spacer"><td colspan="' + span + '" style="height:' + (shown.length - last) * rowHeight + 'px"></td></tr>');
    body.innerHTML = html.join("");
  }

  function escape(s) {
    return s.replace(/&/g, "&amp;").replace(/</g, "&lt;").replace(/>/g, "&gt;").replace(/"/g, "&quot;");
  }

  function showDetail(i) {
    var r = rows[i];
    var html = ["<h3>" + escape(String(r[data.sourceColumn])) + "</h3>"];
    var facts = [String(r[data.statusColumn])];
    if (r[data.cacheColumn]) facts.push("cache " + r[data.cacheColumn]);
    if (r[data.outputColumn]) facts.push("written to " + r[data.outputColumn]);
    var attached = (data.companions || [])[i] || [];
    facts.push(attached.length ? "with " + attached.join(", ") : "no collision or armor companion");
    html.push('<div class="muted">' + escape(facts.join(" \u00b7 ")) + "</div>");
    var image = preview(i);
    html.push('<div class="detail-body">');
    if (image) {
      // The render sets, and on a click the wireframe or the texel density of the same view.
      html.push('<figure class="shot"><img class="preview" alt="preview" width="256" height="256" src="' + image + '">' +
                '<figcaption>' + modeCaption(renderModes[0]) + "</figcaption>" +
                '<div class="modes">' + renderModes.map(function (m, k) {
                  return '<button type="button" data-mode="' + k + '"' + (k === 0 ? ' class="on"' : "") + ">" + m.name + "</button>";
                }).join("") + "</div></figure>");
    }
    html.push('<div class="sets-box"><table class="sets"><thead><tr><th></th><th>render set</th><th>vertex format</th><th class="num">stride</th>' +
              '<th>skinned</th><th class="num" title="extent of the positions along x, y and z">size</th>' +
              '<th class="num" title="the upper median of the square root of UV area over surface area">texel density</th>' +
              '<th class="num">vertices</th><th class="num">triangles</th>' +
              '<th class="num">ACMR before</th><th class="num">ACMR after</th><th class="num">overdraw before</th><th class="num">overdraw after</th></tr></thead><tbody>');
    var fixed = function (v) { return v === null || v === undefined ? "" : v.toFixed(3); };
    var skin = function (s) {
      if (!s[9]) return "no";
      return typeof s[11] === "number" ? "yes, " + s[11] + (s[11] === 1 ? " bone" : " bones") : "yes";
    };
    var extent = function (size) {
      if (!Array.isArray(size) || size.length !== 3) return "";
      return size.map(function (v) { return typeof v === "number" ? Number(v.toPrecision(2)) : "?"; }).join(" \u00d7 ");
    };
    (sets[i] || []).forEach(function (s, k) {
      html.push('<tr><td><span class="swatch" style="background:' + data.palette[k % data.palette.length] + '"></span></td><td>' +
                escape(String(s[0])) + "</td><td>" + escape(String(s[7] || "")) + '</td><td class="num">' + (s[8] === null ? "" : s[8]) +
                '</td><td class="nowrap">' + skin(s) + '</td><td class="num nowrap">' + extent(s[12]) + '</td><td class="num">' + fixed(s[10]) + "</td>" +
                '<td class="num">' + s[1] + '</td><td class="num">' + s[2] + '</td>' +
                [3, 4, 5, 6].map(function (j) { return '<td class="num">' + fixed(s[j]) + "</td>"; }).join("") + "</tr>");
    });
    html.push("</tbody></table></div></div>");
    html.push(levelsHtml(i, image));
    var messages = data.messages[i] || [];
    if (messages.length) {
      html.push("<ul class=\"messages\">");
      messages.forEach(function (m) { html.push("<li>" + escape(m) + "</li>"); });
      html.push("</ul>");
    }
    detail.innerHTML = html.join("");
    detail.hidden = false;
    Array.prototype.forEach.call(detail.querySelectorAll(".shot .modes button"), function (button) {
      button.addEventListener("click", function () { showMode(i, Number(button.dataset.mode)); });
    });
  }

  // The detail's preview in another render mode; a mode the page has no picture of says so.
  function showMode(i, k) {
    var figure = detail.querySelector(".shot");
    if (!figure) return;
    var mode = renderModes[k];
    var image = line(mode.element, i);
    var picture = figure.querySelector("img");
    picture.src = image || "";
    picture.hidden = !image;
    picture.width = mode.wide ? 512 : 256;
    figure.querySelector("figcaption").style.maxWidth = picture.width + "px";
    figure.querySelector("figcaption").innerHTML = image ? modeCaption(mode) : "no " + mode.name + " preview in this page";
    Array.prototype.forEach.call(figure.querySelectorAll(".modes button"), function (button) {
      button.classList.toggle("on", Number(button.dataset.mode) === k);
    });
  }

  body.addEventListener("click", function (e) {
    var tr = e.target.closest("tr[data-model]");
    if (tr) showDetail(Number(tr.dataset.model));
  });
  // A thumbnail shows its preview at full size while the pointer is on it.
  var thumbTip = document.getElementById("thumb-tip");
  body.addEventListener("mouseover", function (e) {
    if (!e.target.matches("td.thumb img")) return;
    thumbTip.innerHTML = '<img alt="" width="256" height="256" src="' + e.target.src + '"><div>after optimisation</div>';
    var box = e.target.getBoundingClientRect();
    thumbTip.style.left = (box.right + window.scrollX + 8) + "px";
    thumbTip.style.top = Math.max(window.scrollY, box.top + window.scrollY - 120) + "px";
    thumbTip.hidden = false;
  });
  body.addEventListener("mouseout", function (e) {
    if (e.target.matches("td.thumb img")) thumbTip.hidden = true;
  });

  // Plots name the model under the pointer and open it on a click.
  var tip = document.getElementById("plot-tip");
  function openModel(i) {
    showDetail(i);
    detail.scrollIntoView({ block: "nearest" });
  }
  // The model whose dot is nearest the pointer, within 8 pixels; -1 for none.
  function dotAt(svg, x, y) {
    var box = svg.getBoundingClientRect();
    var column = Number(svg.dataset.column), top = Number(svg.dataset.top);
    var pad = Number(svg.dataset.pad), size = Number(svg.dataset.size);
    var px = x - box.left, py = y - box.top, best = -1, bestDistance = 64;
    for (var i = 0; i < rows.length; ++i) {
      var before = rows[i][column], after = rows[i][column + 1];
      if (typeof before !== "number" || typeof after !== "number") continue;
      var dx = pad + before / top * size - px, dy = 18 + size - after / top * size - py;
      var distance = dx * dx + dy * dy;
      if (distance < bestDistance) { bestDistance = distance; best = i; }
    }
    return best;
  }
  function showTip(text, x, y) {
    tip.textContent = text;
    tip.style.left = (x + window.scrollX + 14) + "px";
    tip.style.top = (y + window.scrollY + 14) + "px";
    tip.hidden = false;
  }
  document.querySelectorAll("svg.scatter").forEach(function (svg) {
    svg.addEventListener("mousemove", function (e) {
      var i = dotAt(svg, e.clientX, e.clientY);
      svg.style.cursor = i >= 0 ? "pointer" : "";
      if (i < 0) { tip.hidden = true; return; }
      var column = Number(svg.dataset.column);
      showTip(rows[i][data.sourceColumn] + ": " + rows[i][column].toFixed(3) + " \u2192 " + rows[i][column + 1].toFixed(3),
              e.clientX, e.clientY);
    });
    svg.addEventListener("mouseleave", function () { tip.hidden = true; });
    svg.addEventListener("click", function (e) {
      var i = dotAt(svg, e.clientX, e.clientY);
      if (i >= 0) openModel(i);
    });
  });
  document.querySelectorAll("svg rect[data-model]").forEach(function (bar) {
    bar.addEventListener("click", function () { openModel(Number(bar.dataset.model)); });
  });
  var pending = false;
  scroller.addEventListener("scroll", function () {
    if (pending) return;
    pending = true;
    requestAnimationFrame(function () { pending = false; draw(); });
  });
  filterBox.addEventListener("input", applyFilter);
  onlyProblems.addEventListener("change", applyFilter);
  window.addEventListener("resize", draw);
  applyFilter();
  // From the start of navigation (reading and parsing the file included) to a drawn table.
  var loadMs = performance.now();
  var scriptMs = loadMs - started;
  document.getElementById("load-time").textContent = "loaded in " + loadMs.toFixed(0) + " ms";

  // A check the browser tests run: sorts and filters the table and reports what it saw.
  function whenRead(then) {
    if (document.readyState === "loading") document.addEventListener("DOMContentLoaded", then);
    else then();
  }
  // The thumbnails, once the previews are read.
  whenRead(function () {
    document.getElementById("load-time").textContent += ", previews in " + performance.now().toFixed(0) + " ms";
    draw();
  });

  // A link to one model, by its source path (URL-encoded), opens its detail:
  // page.html#model=art/ship.primitives, optionally with &mode=wireframe or &mode=uv.
  var linked = /^#model=([^&]*)(?:&mode=(sets|wireframe|uv))?$/.exec(location.hash);
  if (linked) whenRead(function () {
    var source = decodeURIComponent(linked[1]);
    for (var i = 0; i < rows.length; ++i) {
      if (String(rows[i][data.sourceColumn]) !== source) continue;
      showDetail(i);
      if (linked[2]) showMode(i, {sets: 0, wireframe: 1, uv: 2}[linked[2]]);
      // Once the rest of the page (the plots) is laid out below it.
      setTimeout(function () { detail.scrollIntoView(); }, 50);
      break;
    }
  });

  if (location.hash === "#selftest") whenRead(function () {
    var report = { models: rows.length, loadMs: loadMs, scriptMs: scriptMs, previewsMs: performance.now() };
    // Every column in view: the table is not wider than its box.
    report.tableFits = scroller.scrollWidth <= scroller.clientWidth;
    var t0 = performance.now();
    sortBy(data.trianglesColumn, true);
    report.sortMs = performance.now() - t0;
    var sortedOk = true;
    for (var k = 1; k < shown.length; ++k)
      if ((rows[shown[k - 1]][data.trianglesColumn] || 0) < (rows[shown[k]][data.trianglesColumn] || 0)) sortedOk = false;
    report.sortedDescending = sortedOk;
    report.firstRowModel = body.querySelector("tr[data-model]") ? Number(body.querySelector("tr[data-model]").dataset.model) : -1;
    report.largest = shown.length ? rows[shown[0]][data.sourceColumn] : null;
    // Scrolled to the end, the last row is drawn.
    scroller.scrollTop = scroller.scrollHeight;
    draw();
    var drawn = body.querySelectorAll("tr[data-model]");
    report.lastRowDrawn = drawn.length > 0 && Number(drawn[drawn.length - 1].dataset.model) === shown[shown.length - 1];
    scroller.scrollTop = 0;
    draw();
    var needle = data.rows.length ? String(rows[rows.length - 1][data.sourceColumn]) : "";
    filterBox.value = needle;
    applyFilter();
    report.filterMatches = shown.length;
    report.filterRowsDrawn = body.querySelectorAll("tr[data-model]").length;
    filterBox.value = "no model is called this";
    applyFilter();
    report.filterNone = shown.length;
    filterBox.value = "";
    applyFilter();
    if (rows.length) showDetail(0);
    report.detailImages = detail.querySelectorAll(".detail-body img").length;
    report.detailFacts = detail.querySelector(".muted") ? detail.querySelector(".muted").textContent : "";
    var firstSet = detail.querySelector("table.sets tbody tr");
    report.setFacts = firstSet ? Array.prototype.slice.call(firstSet.cells, 2, 7).map(function (c) { return c.textContent; }) : [];
    var shot = detail.querySelector(".detail-body img");
    report.detailImageSize = shot ? shot.width : 0;
    report.detailCaption = detail.querySelector(".shot figcaption") ? detail.querySelector(".shot figcaption").textContent : "";
    // Each render mode's button shows that mode's picture, labelled.
    report.modeCaptions = [];
    report.modePictures = [];
    Array.prototype.forEach.call(detail.querySelectorAll(".shot .modes button"), function (button) {
      button.click();
      report.modeCaptions.push(detail.querySelector(".shot figcaption").textContent);
      report.modePictures.push(detail.querySelector(".shot img").getAttribute("src"));
    });
    var thumb = body.querySelector("td.thumb img");
    if (thumb) {
      thumb.dispatchEvent(new MouseEvent("mouseover", { bubbles: true }));
      report.thumbTipSize = thumbTip.hidden ? 0 : thumbTip.querySelector("img").width;
      thumb.dispatchEvent(new MouseEvent("mouseout", { bubbles: true }));
    }
    // The first model with levels of detail shows its chain, a preview for each.
    var withLevels = (data.levels || []).findIndex(function (l) { return l.length > 0; });
    if (withLevels >= 0) {
      showDetail(withLevels);
      report.chainLevels = data.levels[withLevels].length;
      report.chainImages = detail.querySelectorAll(".chain img").length;
    }
    // The dot of the first model with ACMR figures is named and opens it.
    var plot = document.querySelector("svg.scatter");
    var named = -1;
    for (var n = 0; plot && n < rows.length && named < 0; ++n)
      if (typeof rows[n][Number(plot.dataset.column)] === "number" && typeof rows[n][Number(plot.dataset.column) + 1] === "number") named = n;
    if (named >= 0) {
      var box = plot.getBoundingClientRect(), column = Number(plot.dataset.column);
      var x = box.left + Number(plot.dataset.pad) + rows[named][column] / Number(plot.dataset.top) * Number(plot.dataset.size);
      var y = box.top + 18 + Number(plot.dataset.size) - rows[named][column + 1] / Number(plot.dataset.top) * Number(plot.dataset.size);
      plot.dispatchEvent(new MouseEvent("mousemove", { clientX: x, clientY: y }));
      report.plotTip = tip.hidden ? "" : tip.textContent;
      plot.dispatchEvent(new MouseEvent("click", { clientX: x, clientY: y }));
      report.plotOpened = detail.querySelector("h3") ? detail.querySelector("h3").textContent : "";
      report.plotModel = String(rows[named][data.sourceColumn]);
    }
    report.problems = problems;
    var out = document.createElement("pre");
    out.id = "selftest";
    out.textContent = JSON.stringify(report);
    document.body.appendChild(out);
  });
})();
)js";

const char* const kPageStyle = R"css(
:root { color-scheme: light; --ink: #1d232b; --muted: #5f6b7a; --line: #d9dee5; --bad: #b3261e; --warn: #9a6700; --good: #1a7f37; }
* { box-sizing: border-box; }
body { font: 14px/1.45 system-ui, -apple-system, "Segoe UI", sans-serif; color: var(--ink); margin: 0; padding: 20px 28px; background: #f6f8fa; }
h1 { font-size: 22px; margin: 0 0 4px; }
h2 { font-size: 17px; margin: 26px 0 8px; }
h3 { font-size: 15px; margin: 0 0 8px; word-break: break-all; }
.muted { color: var(--muted); }
.cards { display: flex; flex-wrap: wrap; gap: 10px; margin-top: 12px; }
.card { background: #fff; border: 1px solid var(--line); border-radius: 6px; padding: 8px 14px; min-width: 120px; }
.card b { display: block; font-size: 18px; }
.card.bad b { color: var(--bad); }
.failures { max-height: 40vh; overflow: auto; }
.failure { background: #fff; border: 1px solid #f1b8b4; border-left: 4px solid var(--bad); border-radius: 6px; padding: 8px 12px; margin: 8px 0; }
.failure ul, .messages { margin: 4px 0 0; padding-left: 20px; font-family: ui-monospace, monospace; font-size: 12px; }
.changes-box { max-height: 40vh; overflow: auto; background: #fff; border: 1px solid var(--line); border-radius: 6px; margin-top: 8px; }
table.changes { border-collapse: collapse; width: 100%; font-size: 12.5px; }
table.changes th { position: sticky; top: 0; background: #eef1f5; text-align: left; padding: 6px 8px; }
table.changes td { padding: 4px 8px; border-bottom: 1px solid #eef1f5; vertical-align: top; }
table.changes tr.failed-since td:first-child, table.changes tr.removed td:first-child { color: var(--bad); font-weight: 600; }
table.changes tr.added td:first-child, table.changes tr.fixed td:first-child { color: var(--good); font-weight: 600; }
#plot-tip { position: absolute; z-index: 10; background: #1d232b; color: #fff; padding: 3px 8px; border-radius: 4px; font-size: 12px; pointer-events: none; max-width: 600px; word-break: break-all; }
svg rect[data-model] { cursor: pointer; }
.plots { display: flex; flex-wrap: wrap; gap: 16px; align-items: flex-start; }
.plot { background: #fff; border: 1px solid var(--line); border-radius: 6px; padding: 8px; }
.plot svg { display: block; }
.plot text { font-size: 11px; fill: var(--muted); }
.controls { display: flex; gap: 16px; align-items: center; margin: 8px 0; }
.controls input[type=search] { width: 320px; padding: 5px 8px; border: 1px solid var(--line); border-radius: 4px; }
#scroller { max-height: 60vh; overflow: auto; background: #fff; border: 1px solid var(--line); border-radius: 6px; }
#models { border-collapse: collapse; width: 100%; font-size: 12px; table-layout: fixed; }
#models th { position: sticky; top: 0; background: #eef1f5; cursor: pointer; user-select: none; text-align: left; padding: 6px 4px; border-bottom: 1px solid var(--line); vertical-align: bottom; width: 62px; font-size: 11px; line-height: 1.2; }
#models th.path { width: auto; }
#models th:first-child { width: 34px; }
#models th:nth-child(3) { width: 84px; }
#models th:last-child { width: 44px; }
#models td.path { direction: rtl; text-align: left; }
#models th.sorted::after { content: " \25B2"; }
#models th.sorted.descending::after { content: " \25BC"; }
#models td { padding: 0 4px; height: 30px; border-bottom: 1px solid #eef1f5; white-space: nowrap; overflow: hidden; text-overflow: ellipsis; }
#models tr[data-model] { cursor: pointer; }
#models tr[data-model]:hover { background: #f0f6ff; }
#models tr.failed td { color: var(--bad); }
.cache-hit { color: var(--good); font-weight: 600; }
.cache-miss { color: var(--warn); }
#cache-legend span { margin-right: 14px; }
#models tr.spacer td, #models tr.spacer { padding: 0; border: 0; }
td.thumb { width: 34px; padding: 2px 4px !important; }
td.thumb img { display: block; border-radius: 3px; }
.num { text-align: right !important; font-variant-numeric: tabular-nums; }
#detail { background: #fff; border: 1px solid var(--line); border-radius: 6px; padding: 12px; margin-top: 12px; }
.detail-body { display: flex; gap: 16px; align-items: flex-start; }
.preview { border-radius: 4px; }
.chain { display: flex; flex-wrap: wrap; gap: 12px; }
.chain figure { margin: 0; width: 256px; }
figure.shot { margin: 0; }
table.sets td.nowrap { white-space: nowrap; }
figure.shot figcaption { font-size: 12px; color: var(--muted); max-width: 256px; }
figure.shot .modes button { font: inherit; font-size: 12px; margin: 4px 4px 0 0; padding: 1px 8px; border: 1px solid var(--line); border-radius: 4px; background: #fff; cursor: pointer; }
figure.shot .modes button.on { background: var(--ink); color: #fff; border-color: var(--ink); }
#thumb-tip { position: absolute; z-index: 10; background: #fff; border: 1px solid var(--line); border-radius: 6px; padding: 6px; box-shadow: 0 4px 16px rgba(0,0,0,.15); pointer-events: none; font-size: 12px; color: var(--muted); }
.chain figcaption { font-size: 12px; }
table.sets { border-collapse: collapse; font-size: 12px; }
table.sets th, table.sets td { padding: 3px 5px; border-bottom: 1px solid #eef1f5; text-align: left; }
.sets-box { min-width: 0; overflow-x: auto; }
.swatch { display: inline-block; width: 12px; height: 12px; border-radius: 2px; }
)css";

} // namespace report_page
