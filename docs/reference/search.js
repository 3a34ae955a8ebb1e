/* SPDX-License-Identifier: Apache-2.0
 * The search box of the reference. A row of searchIndex (search_index.py) is found
 * when each word typed is within its name or its summary; names come first. */
(function () {
  "use strict";

  var MOST = 40;

  /* Lower is better: the name itself, its start, its middle, the summary; -1 is no hit. */
  function rank(row, word) {
    var name = row[0].toLowerCase();
    var bare = name.replace(/^zov_/, "");
    if (name === word || bare === word) return 0;
    if (bare.indexOf(word) === 0 || name.indexOf(word) === 0) return 1;
    if (name.indexOf(word) > 0) return 2;
    return (row[2] + " " + row[3]).toLowerCase().indexOf(word) >= 0 ? 3 : -1;
  }

  function search(text) {
    var words = text.toLowerCase().split(/[^a-z0-9_]+/).filter(Boolean);
    var hits = [];
    if (words.length === 0) return hits;
    searchIndex.forEach(function (row, place) {
      var sum = 0;
      for (var i = 0; i < words.length; i++) {
        var one = rank(row, words[i]);
        if (one < 0) return;
        sum += one;
      }
      hits.push([sum, row[2] === "family" || row[2] === "page" ? 0 : 1, place, row]);
    });
    hits.sort(function (a, b) { return a[0] - b[0] || a[1] - b[1] || a[2] - b[2]; });
    return hits.slice(0, MOST).map(function (hit) { return hit[3]; });
  }

  function element(tag, name, parent) {
    var made = document.createElement(tag);
    made.className = name;
    parent.appendChild(made);
    return made;
  }

  function start() {
    var form = element("div", "zov-search", document.getElementById("top") || document.body);
    var box = element("input", "", form);
    var list = element("ul", "", form);
    var chosen = -1;
    box.type = "search";
    box.placeholder = "Search: queue, mutex, fileOpen ...";
    box.setAttribute("aria-label", "Search the reference");

    function show() {
      list.textContent = "";
      chosen = -1;
      search(box.value).forEach(function (row) {
        var link = element("a", "", element("li", "", list));
        link.href = row[1];
        element("b", "", link).textContent = row[0];
        element("span", "", link).textContent = row[2];
        element("small", "", link).textContent = row[3];
      });
      if (box.value.trim() && !list.firstChild) element("li", "none", list).textContent = "Nothing found";
      list.style.display = box.value.trim() ? "block" : "none";
    }

    function choose(step) {
      var links = list.querySelectorAll("a");
      if (!links.length) return;
      if (chosen >= 0) links[chosen].className = "";
      chosen = (chosen + step + links.length) % links.length;
      links[chosen].className = "chosen";
      links[chosen].scrollIntoView({ block: "nearest" });
    }

    box.addEventListener("input", show);
    box.addEventListener("focus", show);
    box.addEventListener("keydown", function (event) {
      if (event.key === "ArrowDown" || event.key === "ArrowUp") {
        choose(event.key === "ArrowDown" ? 1 : chosen < 0 ? 0 : -1);
        event.preventDefault();
      } else if (event.key === "Enter") {
        var link = list.querySelectorAll("a")[Math.max(chosen, 0)];
        if (link) location.href = link.href;
      } else if (event.key === "Escape") {
        box.value = "";
        show();
      }
    });
    document.addEventListener("click", function (event) {
      if (!form.contains(event.target)) list.style.display = "none";
    });
    document.addEventListener("keydown", function (event) {
      if (event.key === "/" && event.target.tagName !== "INPUT") {
        box.focus();
        event.preventDefault();
      }
    });
    var asked = /[?&]q=([^&]*)/.exec(location.search);
    if (asked) {
      box.value = decodeURIComponent(asked[1]);
      show();
    }
  }

  start();
})();
