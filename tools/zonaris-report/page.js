// Draws a run from the data zonaris-report embedded in #zr-data: the map (Leaflet) and the
// timeline (Chart.js) on one time axis. When done it writes what it drew into #zr-status
// (data-ready, data-fences, data-events, ...), so a headless browser can check the page.
(function () {
  'use strict';

  var data = JSON.parse(document.getElementById('zr-data').textContent);
  var status = document.getElementById('zr-status');

  // ---- Time and text ----------------------------------------------------------------------
  function two(n) { return (n < 10 ? '0' : '') + n; }
  // Clock time of a moment `t` seconds after the start; a later day is marked +1d, +2d, ...
  function clock(t) {
    var s = Math.floor(data.startClock + t + 1e-6);
    var day = Math.floor(s / 86400);
    s -= day * 86400;
    var text = two(Math.floor(s / 3600)) + ':' + two(Math.floor(s / 60) % 60) + ':' + two(s % 60);
    return day > 0 ? text + ' +' + day + 'd' : text;
  }
  function clockShort(t) { return clock(t).slice(0, 5); }
  function escapeHtml(value) {
    return String(value).replace(/[&<>"']/g, function (c) {
      return { '&': '&amp;', '<': '&lt;', '>': '&gt;', '"': '&quot;', "'": '&#39;' }[c];
    });
  }
  function seconds(value) {
    if (value === null || value === undefined) return '–';
    return value >= 120 ? (value / 60).toFixed(1) + ' min' : Math.round(value) + ' s';
  }

  // ---- Colours: the interval that followed a fix, 15 s (red) to 600 s (blue) ---------------
  function intervalColour(interval) {
    if (interval === null || interval === undefined) return '#8a8a8a';
    var f = Math.log(Math.max(15, Math.min(600, interval)) / 15) / Math.log(40);
    return 'hsl(' + Math.round(f * 230) + ', 78%, 45%)';
  }
  var eventColour = { entry: '#1b8a3a', exit: '#c0392b', dwell: '#1f5fbf' };
  var eventLetter = { entry: 'E', exit: 'X', dwell: 'D' };

  // ---- Map -----------------------------------------------------------------------------------
  // No tile server: a plain background with a grid, and a scale bar.
  var map = L.map('zr-map', { attributionControl: false, zoomSnap: 0.25 });
  // Layers join a map only once it has a view; the real one is fitted once all are drawn.
  map.setView([0, 0], 2);
  L.control.scale({ imperial: false, maxWidth: 160 }).addTo(map);
  var bounds = L.latLngBounds([]);

  function fencePopup(fence) {
    var lines = ['<h3>' + escapeHtml(fence.name || '(no name)') + '</h3>',
      'fence ' + fence.id + ', ' + escapeHtml(fence.type || '(no type)')];
    if (fence.type === 'point') lines.push('radius ' + fence.radius + ' m');
    if (fence.beacon) lines.push('beacon ' + escapeHtml(fence.beacon) + '; inside within 70 m, ranging within 150 m');
    if (fence.dwell && fence.dwell.length) lines.push('dwell windows: ' + fence.dwell.map(seconds).join(', '));
    if (!fence.takesPart) lines.push('<span class="zr-bad">no event types: the client ignores it</span>');
    return lines.join('<br>');
  }

  var fenceCount = 0;
  data.fences.forEach(function (fence) {
    if (!fence.shape) return;
    var colour = fence.takesPart ? '#6a3d9a' : '#999';
    var layer = L.geoJSON(fence.shape, {
      style: function () {
        return { color: colour, weight: 2, fillColor: colour, fillOpacity: 0.18, className: 'zr-fence',
          dashArray: fence.takesPart ? null : '4 4' };
      },
      pointToLayer: function (feature, latlng) {
        return L.circleMarker(latlng, { radius: 5, color: colour, weight: 2, fillColor: '#fff',
          fillOpacity: 1, className: 'zr-fence' });
      }
    }).bindPopup(fencePopup(fence)).addTo(map);
    layer.eachLayer(function (part) {
      var element = part.getElement && part.getElement();
      if (element) element.setAttribute('data-fence', String(fence.id));
    });
    bounds.extend(layer.getBounds());
    fenceCount += 1;

    var centre = fence.shape.type === 'Point' ? L.latLng(fence.shape.coordinates[1], fence.shape.coordinates[0]) : null;
    function ring(radius, dash, label) {
      var circle = L.circle(centre, { radius: radius, color: colour, weight: 1.5, dashArray: dash,
        fillOpacity: fence.type === 'point' ? 0.15 : 0.04, className: 'zr-ring' });
      circle.bindTooltip(escapeHtml(fence.name || '') + ': ' + label).addTo(map);
      var element = circle.getElement();
      if (element) element.setAttribute('data-ring', String(fence.id));
      bounds.extend(centre.toBounds(radius * 2));
    }
    if (centre && fence.type === 'point' && fence.radius > 0) ring(fence.radius, null, fence.radius + ' m');
    if (centre && fence.type === 'beacon') {
      ring(70, '6 4', 'inside within 70 m');
      ring(150, '2 6', 'beacon ranging within 150 m');
    }
  });

  if (data.trace.length > 1) {
    var trace = L.polyline(data.trace, { color: '#444', weight: 2, opacity: 0.55, className: 'zr-trace' }).addTo(map);
    bounds.extend(trace.getBounds());
  }

  // Fixes: [t, lat, lon, accuracy, interval, source, init]
  var fixMarkers = [];
  var fixTimes = data.fixes.map(function (f) { return f[0]; });
  function fixPopup(i) {
    var f = data.fixes[i];
    var lines = ['<h3>Fix ' + (i + 1) + ' at ' + clock(f[0]) + '</h3>',
      f[6] ? 'reference position: fences downloaded' : 'next fix after ' + seconds(f[4]),
      'accuracy ' + (f[3] === null ? '–' : f[3] + ' m'),
      f[5] === 'trace' ? '<span class="zr-muted">position from the trace (run without --dev-mode)</span>'
        : '<span class="zr-muted">position as the client logged it</span>'];
    return lines.join('<br>');
  }
  data.fixes.forEach(function (f, i) {
    var marker = L.circleMarker([f[1], f[2]], { radius: 4, weight: 1, color: '#222', opacity: 0.7,
      fillColor: intervalColour(f[4]), fillOpacity: 0.95, className: 'zr-fix' });
    marker.on('click', function () { select(i, false); });
    marker.addTo(map);
    fixMarkers.push(marker);
  });

  // Events: letters in badges, nudged apart by type so that an entry and a dwell at the same
  // fix stay visible.
  var nudge = { entry: [20, 9], exit: [-2, 9], dwell: [9, 20] };
  function eventPopup(e) {
    var lines = ['<h3>' + e.type + ' ' + escapeHtml(e.name === null ? '(null)' : e.name) + '</h3>',
      clock(e.t) + (e.id !== null ? ', fence ' + e.id : '')];
    if (e.trueT !== undefined && e.trueT !== null)
      lines.push('true crossing ' + clock(e.trueT) + ', latency ' + seconds(e.latency));
    if (e.basic) {
      lines.push('message "' + escapeHtml(e.basic.title) + '": ' + escapeHtml(e.basic.body) +
        (e.basic.url && e.basic.url !== '(null)' ? ' [' + escapeHtml(e.basic.url) + ']' : ''));
    }
    if (e.data) lines.push('<span class="zr-pop-data">data ' + escapeHtml(JSON.stringify(e.data)) + '</span>');
    if (e.silenced) {
      lines.push('<span class="zr-bad">message dropped in the silence window</span>');
      if (e.sent) lines.push('<span class="zr-pop-data">' + escapeHtml(e.sent) + '</span>');
    } else if (!e.basic && !e.data) {
      lines.push('<span class="zr-muted">no message</span>');
    }
    return lines.join('<br>');
  }
  function badge(className, letter, at, anchor, popup) {
    var icon = L.divIcon({ className: className, html: letter, iconSize: [18, 18], iconAnchor: anchor });
    return L.marker(at, { icon: icon, riseOnHover: true }).bindPopup(popup).addTo(map);
  }
  data.events.forEach(function (e) {
    badge('zr-event zr-' + e.type, eventLetter[e.type] || '?', e.at, nudge[e.type] || [9, 9], eventPopup(e));
  });

  var score = data.score;
  if (score) {
    score.missed.forEach(function (m) {
      badge('zr-missed', '?', m.at, [9, 9],
        '<h3>missed ' + escapeHtml(m.type) + ' ' + escapeHtml(m.fence) + '</h3>true crossing ' + clock(m.true_t) +
        (m.in_outage ? '<br><span class="zr-bad">during a service outage</span>' : ''));
    });
    score['false'].forEach(function (m) {
      badge('zr-false', '!', m.at, [9, 9],
        '<h3>false ' + escapeHtml(m.type) + ' ' + escapeHtml(m.fence) + '</h3>' + clock(m.t) +
        '<br>no such crossing in the trace');
    });
  }

  if (bounds.isValid()) map.fitBounds(bounds, { padding: [16, 16] });
  else map.setView([0, 0], 2);

  // ---- Side panel ------------------------------------------------------------------------------
  function row(cells, tag) {
    return '<tr>' + cells.map(function (c) { return '<' + (tag || 'td') + '>' + c + '</' + (tag || 'td') + '>'; }).join('') + '</tr>';
  }
  function countOf(list, test) { return list.filter(test).length; }
  var messages = countOf(data.events, function (e) { return !!e.basic; });
  var silenced = countOf(data.events, function (e) { return e.silenced; });
  var hours = data.end / 3600;
  document.getElementById('zr-headline').textContent = data.startDate + ' ' + clock(0) + ' to ' + clock(data.end) +
    ' (' + hours.toFixed(1) + ' h), ' + data.lines + ' JSON lines' + (data.devMode ? ', dev mode' : '');

  var summary = '<h2>The run</h2><table>' +
    row(['fixes taken', data.fixes.length]) +
    row(['events: entry / exit / dwell', ['entry', 'exit', 'dwell'].map(function (type) {
      return countOf(data.events, function (e) { return e.type === type; });
    }).join(' / ')]) +
    row(['messages delivered', messages + (silenced ? ' <span class="zr-muted">(' + silenced + ' silenced)</span>' : '')]) +
    row(['observations sent', countOf(data.observations, function (o) { return o[1]; }) +
      (countOf(data.observations, function (o) { return !o[1]; }) ? ' <span class="zr-bad">(' +
        countOf(data.observations, function (o) { return !o[1]; }) + ' failed)</span>' : '')]) +
    row(['error reports', data.errors.length ? '<span class="zr-bad">' + data.errors.length + '</span>' : (data.devMode ? '0' : '– (dev mode only)')]) +
    row(['beacon scans', data.scans.length]) +
    row(['silence window', data.silenceHours ? data.silenceHours[0] + ' .. ' + data.silenceHours[1] : 'none given']) +
    '</table>';
  function number(value, digits) {
    if (typeof value !== 'number') return '–';
    return Number.isInteger(value) ? String(value) : value.toFixed(digits === undefined ? 1 : digits);
  }
  function field(object, a, b) {
    var v = object && typeof object === 'object' ? object[a] : undefined;
    return b === undefined ? v : (v && typeof v === 'object' ? v[b] : undefined);
  }
  if (score) {
    // This run beside a fixed 15 s sampler on the same trace, when the score has one.
    var base = score.baseline;
    var head = base ? ['', 'this run', 'a fix / 15 s'] : ['', 'this run'];
    function compare(label, a, b, bad) {
      var cells = [label, bad && a ? '<span class="zr-bad">' + number(a) + '</span>' : number(a)];
      if (base) cells.push(number(b));
      return row(cells);
    }
    summary += '<h2>Against the ground truth</h2><table>' + row(head, 'th') +
      compare('true events', score.truthCount, base && base.truthCount) +
      compare('matched', score.matchedCount, base && base.matchedCount) +
      compare('missed', score.missedCount, base && base.missedCount, true) +
      compare('false', score.falseCount, base && base.falseCount, true) +
      (score.lost_visits !== undefined ? compare('visits lost in outages', score.lost_visits, base && base.lost_visits, true) : '') +
      compare('fixes taken', field(score.fixes, 'taken'), field(base && base.fixes, 'taken')) +
      compare('fixes per hour', field(score.fixes, 'per_hour'), field(base && base.fixes, 'per_hour'));
    ['entry', 'exit', 'dwell'].forEach(function (type) {
      if (!field(score.latency, type)) return;
      var a = field(score.latency, type), b = field(base && base.latency, type);
      var cells = [type + ' latency (median / p95)', seconds(field(a, 'median')) + ' / ' + seconds(field(a, 'p95'))];
      if (base) cells.push(b ? seconds(field(b, 'median')) + ' / ' + seconds(field(b, 'p95')) : '–');
      summary += row(cells);
    });
    Object.keys(score.requests_per_hour || {}).forEach(function (k) {
      summary += compare(escapeHtml(k.replace(/_/g, ' ')) + ' requests / h', score.requests_per_hour[k],
        field(base && base.requests_per_hour, k));
    });
    summary += '</table>';
  }
  document.getElementById('zr-summary').innerHTML = summary;

  var legend = '<h2>Legend</h2>' +
    '<div class="zr-legend-row">fix, by the interval after it: 15 s <span class="zr-ramp" style="background:linear-gradient(90deg,' +
    [15, 30, 60, 120, 240, 600].map(intervalColour).join(',') + ')"></span> 600 s</div>' +
    '<div class="zr-legend-row"><span class="zr-swatch" style="background:#8a8a8a"></span>reference fix (fences downloaded)</div>' +
    ['entry', 'exit', 'dwell'].map(function (type) {
      return '<div class="zr-legend-row"><span class="zr-swatch" style="background:' + eventColour[type] + '"></span>' + type + '</div>';
    }).join('') +
    (score ? '<div class="zr-legend-row"><span class="zr-swatch" style="border:2px dashed #b3261e;border-radius:2px"></span>missed (score)</div>' +
      '<div class="zr-legend-row"><span class="zr-swatch" style="background:#f2c200;border-radius:2px"></span>false (score)</div>' : '') +
    '<div class="zr-legend-row"><span class="zr-swatch" style="background:#b7b7e6;border-radius:2px"></span>silence window</div>';
  document.getElementById('zr-legend').innerHTML = legend;

  // ---- Timeline --------------------------------------------------------------------------------
  var selectedT = null;
  // Shades the silence window and marks the selected moment on every chart.
  var overlay = {
    id: 'zrOverlay',
    beforeDatasetsDraw: function (chart) {
      var area = chart.chartArea, x = chart.scales.x, ctx = chart.ctx;
      ctx.save();
      ctx.fillStyle = 'rgba(110, 110, 210, 0.16)';
      data.silence.forEach(function (s) {
        var a = Math.max(area.left, x.getPixelForValue(s[0])), b = Math.min(area.right, x.getPixelForValue(s[1]));
        if (b > a) ctx.fillRect(a, area.top, b - a, area.bottom - area.top);
      });
      ctx.restore();
    },
    afterDatasetsDraw: function (chart) {
      if (selectedT === null) return;
      var area = chart.chartArea, px = chart.scales.x.getPixelForValue(selectedT), ctx = chart.ctx;
      ctx.save();
      ctx.strokeStyle = '#000';
      ctx.setLineDash([4, 3]);
      ctx.beginPath();
      ctx.moveTo(px, area.top);
      ctx.lineTo(px, area.bottom);
      ctx.stroke();
      ctx.restore();
    }
  };

  Chart.defaults.font.size = 11;
  Chart.defaults.animation = false;
  Chart.defaults.maintainAspectRatio = false;
  function timeAxis(showTicks) {
    return { type: 'linear', min: 0, max: data.end, grid: { color: '#0000000f' },
      ticks: { display: showTicks, align: 'inner', maxTicksLimit: 14, stepSize: data.end > 6 * 3600 ? 3600 : (data.end > 3600 ? 900 : 60),
        callback: function (value) { return clockShort(value); } } };
  }
  var charts = [];
  function onClick(event, elements, chart) {
    var t = chart.scales.x.getValueForPixel(event.x);
    if (t !== undefined && isFinite(t)) select(fixIndexAt(t), true);
  }
  // Every chart has the same left axis width and no legend (a caption names the series), so
  // that the plot areas line up on one time axis.
  function chart(id, datasets, y, caption) {
    var canvas = document.getElementById(id);
    var note = document.createElement('div');
    note.className = 'zr-caption';
    note.innerHTML = caption;
    canvas.parentNode.appendChild(note);
    y.afterFit = function (scale) { scale.width = 96; };
    var c = new Chart(canvas, {
      type: 'line',
      data: { datasets: datasets },
      plugins: [overlay],
      options: {
        parsing: false, normalized: true, onClick: onClick,
        layout: { padding: { right: 14 } },
        interaction: { mode: 'nearest', axis: 'x', intersect: false },
        plugins: { legend: { display: false },
          tooltip: { callbacks: { title: function (items) { return items.length ? clock(items[0].parsed.x) : ''; } } } },
        scales: { x: timeAxis(id === 'zr-chart-activity'), y: y }
      }
    });
    charts.push(c);
    return c;
  }
  function key(colour, text) {
    return '<span class="zr-key" style="background:' + colour + '"></span>' + text;
  }
  function points(series, scale) {
    return series.filter(function (p) { return p[1] !== null; })
      .map(function (p) { return { x: p[0], y: scale ? scale(p[1]) : p[1] }; });
  }
  var evaluated = data.fixes.filter(function (f) { return f[4] !== null; });
  chart('zr-chart-interval', [{
    label: 'interval (s)', stepped: 'before', borderColor: '#666', borderWidth: 1.2,
    pointRadius: 2.5, pointBorderWidth: 0,
    pointBackgroundColor: evaluated.map(function (f) { return intervalColour(f[4]); }),
    data: evaluated.map(function (f) { return { x: f[0], y: f[4] }; })
  }], { type: 'logarithmic', min: 10, max: 700, title: { display: true, text: 'interval' },
    afterBuildTicks: function (axis) { axis.ticks = [15, 30, 60, 120, 300, 600].map(function (v) { return { value: v }; }); },
    ticks: { callback: function (v) { return seconds(v); } } },
  'seconds until the next fix, dots coloured as on the map');

  chart('zr-chart-speed', [
    { label: 'speed', borderColor: '#e07b00', borderWidth: 1.2, pointRadius: 0, data: points(data.speed) },
    { label: 'average speed', borderColor: '#1f5fbf', borderWidth: 1.5, pointRadius: 0, data: points(data.avgSpeed) }
  ], { min: 0, title: { display: true, text: 'm/s' } },
  key('#e07b00', 'speed') + key('#1f5fbf', 'average speed'));

  // Distance to the nearest fence on a log axis; inside a fence the point is filled green.
  var distance = data.distance.filter(function (d) { return d[1] !== null && d[1] < 1e8; });
  chart('zr-chart-distance', [{
    label: 'nearest fence', borderColor: '#6a3d9a', borderWidth: 1.2, pointRadius: 2, pointBorderWidth: 0,
    pointBackgroundColor: distance.map(function (d) { return d[2] ? '#1b8a3a' : '#6a3d9a'; }),
    data: distance.map(function (d) { return { x: d[0], y: Math.max(1, d[1]) }; })
  }], { type: 'logarithmic', min: 1, title: { display: true, text: 'metres' },
    ticks: { callback: function (v) { var l = Math.log10(v); return Math.abs(l - Math.round(l)) < 1e-9 ? (v >= 1000 ? v / 1000 + ' km' : v + ' m') : ''; } } },
  'distance to the nearest fence: ' + key('#6a3d9a', 'outside') + key('#1b8a3a', 'inside'));

  // One lane per kind of activity; spans are segments, moments are points.
  var lanes = ['beacons seen', 'beacon scans', 'observations', 'error reports', 'events'];
  if (score) lanes.push('missed / false');
  function spans(list, lane) {
    var out = [];
    list.forEach(function (s) { out.push({ x: s[0], y: lane }, { x: s[1], y: lane }, { x: s[1], y: null }); });
    return out;
  }
  var activity = [
    { label: 'beacons seen', borderColor: '#9ab', borderWidth: 6, pointRadius: 0, spanGaps: false, data: spans(data.sightings, 0) },
    { label: 'beacon scans', borderColor: '#2a9d8f', borderWidth: 8, pointRadius: 0, spanGaps: false, data: spans(data.scans, 1) },
    { label: 'observations', showLine: false, pointRadius: 3, pointStyle: 'circle',
      pointBackgroundColor: data.observations.map(function (o) { return o[1] ? '#555' : '#b3261e'; }),
      borderColor: '#555', data: data.observations.map(function (o) { return { x: o[0], y: 2 }; }) },
    { label: 'error reports', showLine: false, pointRadius: 5, pointStyle: 'triangle', backgroundColor: '#b3261e',
      borderColor: '#b3261e', data: data.errors.map(function (e) { return { x: e[0], y: 3 }; }) },
    { label: 'events', showLine: false, pointRadius: 5, pointStyle: 'rectRot',
      pointBackgroundColor: data.events.map(function (e) { return eventColour[e.type] || '#000'; }),
      borderColor: '#fff', data: data.events.map(function (e) { return { x: e.t, y: 4 }; }) }
  ];
  if (score) {
    activity.push({ label: 'missed / false', showLine: false, pointRadius: 5, pointStyle: 'rect',
      pointBackgroundColor: score.missed.map(function () { return '#fff'; }).concat(score['false'].map(function () { return '#f2c200'; })),
      borderColor: '#b3261e',
      data: score.missed.map(function (m) { return { x: m.true_t, y: 5 }; })
        .concat(score['false'].map(function (m) { return { x: m.t, y: 5 }; })) });
  }
  var activityChart = chart('zr-chart-activity', activity, {
    min: -0.6, max: lanes.length - 0.4, reverse: true,
    afterBuildTicks: function (axis) { axis.ticks = lanes.map(function (name, i) { return { value: i }; }); },
    ticks: { autoSkip: false, callback: function (v) { return lanes[v] || ''; } }
  }, key('#b7b7e6', 'silence window') + ' ' + ['entry', 'exit', 'dwell'].map(function (type) {
    return key(eventColour[type], type);
  }).join(' '));
  activityChart.options.plugins.tooltip.callbacks.label = function (item) {
    var lane = item.dataset.label;
    if (lane === 'events') {
      var e = data.events[item.dataIndex];
      return e.type + ' ' + (e.name === null ? '(null)' : e.name);
    }
    if (lane === 'error reports') return 'error report: ' + data.errors[item.dataIndex][1];
    if (lane === 'observations') return data.observations[item.dataIndex][1] ? 'observation sent' : 'observation failed';
    return lane;
  };
  activityChart.update();

  // ---- Selecting a fix -------------------------------------------------------------------------
  // The fix in force at `t`: the last one taken at or before it (else the first).
  function fixIndexAt(t) {
    var lo = 0, hi = fixTimes.length;
    while (lo < hi) {
      var mid = (lo + hi) >> 1;
      if (fixTimes[mid] <= t) lo = mid + 1; else hi = mid;
    }
    return Math.max(0, lo - 1);
  }
  var selected = -1;
  function select(i, fromTimeline) {
    if (i < 0 || i >= fixMarkers.length) return;
    if (selected >= 0) fixMarkers[selected].setStyle({ radius: 4, weight: 1, color: '#222' });
    selected = i;
    var marker = fixMarkers[i], f = data.fixes[i];
    marker.setStyle({ radius: 9, weight: 3, color: '#000' });
    marker.bringToFront();
    if (fromTimeline && !map.getBounds().contains(marker.getLatLng())) map.panTo(marker.getLatLng());
    marker.bindPopup(fixPopup(i));
    if (!fromTimeline) marker.openPopup();
    document.getElementById('zr-selected').innerHTML = '<h2>Selected fix</h2>' + fixPopup(i);
    selectedT = f[0];
    charts.forEach(function (c) { c.draw(); });
    status.setAttribute('data-selected', String(i));
    status.setAttribute('data-selected-t', String(f[0]));
  }
  // A link may name a moment: report.html#t=3600 selects the fix in force an hour in.
  var wanted = /^#t=([0-9.]+)$/.exec(window.location.hash);
  if (wanted && fixMarkers.length) select(fixIndexAt(Number(wanted[1])), true);

  // ---- What was drawn ----------------------------------------------------------------------------
  var drawnFences = {};
  Array.prototype.forEach.call(document.querySelectorAll('#zr-map [data-fence]'), function (el) {
    drawnFences[el.getAttribute('data-fence')] = true;
  });
  function count(selector) { return String(document.querySelectorAll('#zr-map ' + selector).length); }
  status.setAttribute('data-fences', String(Object.keys(drawnFences).length));
  status.setAttribute('data-fences-listed', String(fenceCount));
  status.setAttribute('data-rings', count('.zr-ring'));
  status.setAttribute('data-fixes', count('.zr-fix'));
  status.setAttribute('data-events', count('.zr-event'));
  status.setAttribute('data-missed', count('.zr-missed'));
  status.setAttribute('data-false', count('.zr-false'));
  status.setAttribute('data-charts', String(charts.length));
  status.setAttribute('data-ready', '1');
})();
