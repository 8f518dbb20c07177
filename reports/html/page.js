'use strict';
// Draws the page from the data in it. Whatever comes from the capture reaches the page as text only.
(() => {
  const data = JSON.parse(document.getElementById('data').textContent);
  const { summary, series } = data;
  const main = document.getElementById('main');
  const NULL_PID = 0x1fff;
  const BITS = 188 * 8;
  const PAPER_WIDTH = 690; // pixels of CSS that A4 and Letter have between their margins

  // ---- elements ----------------------------------------------------------------------------------

  /** An element; children are elements, texts or nothing. */
  function el(name, attributes = {}, ...children) {
    const node = document.createElement(name);
    for (const [key, value] of Object.entries(attributes)) {
      if (key.startsWith('on')) node.addEventListener(key.slice(2), value);
      else if (value === true) node.setAttribute(key, '');
      else if (value !== false && value != null) node.setAttribute(key, value);
    }
    node.append(...children.flat(2).filter(child => child != null && child !== ''));
    return node;
  }

  // Control characters, and those that turn the direction of whatever follows.
  const UNSHOWN = /[\p{Cc}\u202a-\u202e\u2066-\u2069]/gu;

  /** What an input calls itself may hold any characters: kept apart from the text around it. */
  const name = text => el('bdi', {}, text.replace(UNSHOWN, '\ufffd'));

  function section(id, title, ...children) {
    const node = el('section', { id, 'aria-labelledby': `${id}-title` }, el('h2', { id: `${id}-title` }, title), children);
    main.append(node);
    return node;
  }

  /** Rows of cells: texts, numbers (right-aligned) or nodes. */
  function table(headings, rows, { caption, classes = '', stack = false } = {}) {
    const cell = (value, i) => el('td', {
      class: typeof value === 'number' ? 'number' : null,
      'data-name': stack && i > 0 ? headings[i] : null,
    }, typeof value === 'number' ? count(value) : value);
    return el('div', { class: 'scroll' }, el('table', { class: `${classes}${stack ? ' stack' : ''}` },
      caption ? el('caption', {}, caption) : null,
      el('thead', {}, el('tr', {}, headings.map((h, i) => el('th', { scope: 'col', class: typeof rows[0]?.[i] === 'number' ? 'number' : null }, h)))),
      el('tbody', {}, rows.map(row => el('tr', {}, row.map(cell))))));
  }

  /** A table that is made when somebody opens it. */
  function hiddenTable(title, make) {
    const node = el('details', {}, el('summary', {}, title));
    node.addEventListener('toggle', () => {
      if (node.open && node.childElementCount === 1) {
        const made = make();
        made.classList.add('tall');
        made.tabIndex = 0;
        node.append(made);
      }
    });
    return node;
  }

  // ---- words -------------------------------------------------------------------------------------

  const count = n => n.toLocaleString('en-GB');
  const plural = (n, noun) => `${count(n)} ${noun}${n === 1 ? '' : 's'}`;
  const digits = (value, most) => Number(value.toFixed(most)).toLocaleString('en-GB', { maximumFractionDigits: most });

  function milliseconds(value) {
    if (Math.abs(value) >= 1000) return `${digits(value / 1000, 3)} s`;
    return `${digits(value, Math.abs(value) < 10 ? 3 : 1)} ms`;
  }
  const short = value => (Math.abs(value) >= 1e6 ? `${digits(value / 1e6, 3)} M` : digits(value, 3));
  const nanoseconds = value => Math.abs(value) >= 10000 ? `${digits(value / 1000, 1)} µs` : `${digits(value, 0)} ns`;

  function bitRate(value) {
    if (value >= 1e6) return `${digits(value / 1e6, 2)} Mbit/s`;
    return value >= 1e3 ? `${digits(value / 1e3, 1)} kbit/s` : `${digits(value, 0)} bit/s`;
  }

  /** Seconds as 12.345 s, 1:02.5, 23:59:59. */
  function clockTime(seconds, decimals = 3) {
    const unit = 10 ** decimals;
    const all = Math.round(Math.abs(seconds) * unit);
    const sign = seconds < 0 && all > 0 ? '-' : '';
    const rest = all % (60 * unit);
    const text = (rest / unit).toFixed(decimals);
    const minutes = Math.floor(all / (60 * unit));
    if (minutes === 0) return `${sign}${text} s`;
    const pad = text.padStart(decimals ? decimals + 3 : 2, '0');
    return minutes < 60 ? `${sign}${minutes}:${pad}`
      : `${sign}${Math.floor(minutes / 60)}:${String(minutes % 60).padStart(2, '0')}:${pad}`;
  }
  const axisText = (x, decimals) => series.timed ? clockTime(x, decimals) : `packet ${count(Math.min(Math.round(x) + 1, Math.max(1, summary.packets)))}`;

  function placeText(place) {
    const time = place.time_s === null ? '' : `, ${place.time_estimated ? 'about ' : ''}${clockTime(place.time_s)}`;
    return `packet ${count(place.packet)}, byte ${count(place.byte)}${time}${place.ts ? `, ${place.ts}` : ''}`;
  }

  const programs = new Map(summary.programs.map(p => [p.number, p]));
  const programText = number => {
    const program = programs.get(number);
    return `program ${number}${program && program.name ? ` ${shorten(program.name)}` : ''}`;
  };
  const shorten = text => {
    const letters = Array.from(text.replace(UNSHOWN, '\ufffd'));
    return letters.length > 40 ? `${letters.slice(0, 39).join('')}…` : letters.join('');
  };

  const pidUse = new Map();
  for (const program of summary.programs) {
    for (const stream of program.streams)
      pidUse.set(stream.pid, pidUse.get(stream.pid) ?? `${stream.kind} ${stream.codec}${stream.language ? ` ${stream.language}` : ''}`);
    if (program.pcr_pid !== null && !pidUse.has(program.pcr_pid)) pidUse.set(program.pcr_pid, 'PCR');
    pidUse.set(program.pmt_pid, pidUse.get(program.pmt_pid) ?? `PMT of program ${program.number}`);
  }
  for (const [pid, use] of [[0, 'PAT'], [1, 'CAT'], [16, 'NIT'], [17, 'SDT'], [18, 'EIT'], [20, 'TDT'], [NULL_PID, 'null packets']])
    if (!pidUse.has(pid)) pidUse.set(pid, use);
  const pidText = pid => pid === null ? 'no pid known' : `pid ${pid}${pidUse.has(pid) ? `, ${pidUse.get(pid)}` : ''}`;

  // Each pid has one colour in all plots.
  const pidOrder = new Map();
  for (const program of summary.programs)
    for (const stream of program.streams)
      if (!pidOrder.has(stream.pid)) pidOrder.set(stream.pid, pidOrder.size);
  for (const { pid } of series.pids) if (!pidOrder.has(pid)) pidOrder.set(pid, pidOrder.size);
  const pidColour = pid => seriesColour(pidOrder.get(pid) ?? pidOrder.size);

  const badge = (kind, text) => el('span', { class: `badge ${kind}` }, text);

  // ---- columns of the data -----------------------------------------------------------------------

  /** Numbers of which each but the first is the distance to the one before. */
  function summed(steps) {
    let sum = 0;
    return steps.map(step => (sum += step));
  }
  const byteOf = (packet, beyond) => (packet - 1) * data.packet_size + beyond;

  /** Points of a series: where, and its smallest and largest value with their packets. */
  function pointsOf(columns) {
    const x = summed(columns.x);
    const side = which => {
      const packets = summed(columns[`${which}_packet`]);
      const beyond = summed(columns[`${which}_beyond`]);
      return columns[which].map((value, i) => ({ value, packet: packets[i], byte: byteOf(packets[i], beyond[i]) }));
    };
    const low = side('low');
    const high = side('high');
    return x.map((bucket, i) => ({ bucket, low: low[i], high: high[i] }));
  }

  const firstPacket = summed(series.first.packet);
  const firstBeyond = summed(series.first.beyond);
  const length = Math.max(series.length, series.timed ? 0.001 : 1);
  const middle = bucket => Math.min((bucket + 0.5) * series.width, length);

  /** Where on the axis a packet lies whose time is not known, or one of those that are only counted. */
  function axisOfPacket(packet) {
    if (!series.timed) return packet - 1;
    let low = 0;
    let high = firstPacket.length;
    while (low + 1 < high) {
      const half = (low + high) >> 1;
      if (firstPacket[half] <= packet) low = half; else high = half;
    }
    const begin = firstPacket[low] ?? 1;
    const end = firstPacket[low + 1] ?? summary.packets + 1;
    const share = end > begin ? Math.min(1, Math.max(0, (packet - begin) / (end - begin))) : 0;
    return Math.min(length, (low + share) * series.width);
  }
  const axisOf = place => series.timed && place.time_s !== null ? place.time_s : axisOfPacket(place.packet);

  // ---- plots -------------------------------------------------------------------------------------

  const style = getComputedStyle(document.documentElement);
  const palette = new Map(); // of light or dark, screen or paper; asked for once
  function colour(variable) {
    if (!palette.has(variable)) palette.set(variable, style.getPropertyValue(`--${variable}`).trim());
    return palette.get(variable);
  }
  const seriesColour = i => {
    const all = colour('series').split(/\s+/);
    return all[i % all.length];
  };
  // Its legend sets styles in a way that the policy of the page forbids; there is one beside each plot.
  Dygraph.PLUGINS = Dygraph.PLUGINS.filter(plugin => plugin !== Dygraph.Plugins.Legend);
  const plots = []; // those of time, zoomed together
  const restyle = []; // functions that put the colours of the palette

  const STEPS = [0.001, 0.002, 0.005, 0.01, 0.02, 0.05, 0.1, 0.2, 0.5, 1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800,
    3600, 7200, 10800, 21600, 43200, 86400, 172800, 604800];

  /** Ticks at round times, whatever dygraphs does with numbers. */
  function timeTicks(from, to, pixels) {
    const most = Math.max(2, Math.floor(pixels / 80));
    const step = STEPS.find(s => (to - from) / s <= most) ?? (to - from) / most;
    const decimals = step >= 1 ? 0 : step >= 0.1 ? 1 : step >= 0.01 ? 2 : 3;
    const ticks = [];
    for (let i = Math.ceil(from / step); i * step <= to && ticks.length < 60; ++i)
      ticks.push({ v: i * step, label: clockTime(i * step, decimals) });
    return ticks;
  }

  function packetTicks(from, to, pixels, ...rest) {
    return Dygraph.numericTicks(from, to, pixels, ...rest).map(tick => ({ ...tick, label: tick.label === undefined ? '' : count(Math.round(tick.v)) }));
  }

  /** Dragging zooms; fingers are left to the page, which has to be scrolled. */
  const mouse = Object.fromEntries(Object.entries(Dygraph.defaultInteractionModel).filter(([event]) => !event.startsWith('touch')));

  const baseOptions = () => ({
    interactionModel: mouse,
    animatedZooms: false,
    rightGap: 10,
    highlightCircleSize: 3,
    strokeWidth: 1.5,
    axisLineColor: colour('line'),
    gridLineColor: colour('grid'),
    gridLineWidth: 1,
    xRangePad: 0,
    axes: {
      x: { ticker: series.timed ? timeTicks : packetTicks, axisLabelWidth: 76 },
      y: { axisLabelWidth: 64, axisLabelFormatter: short },
    },
  });

  /**
   * A plot with what belongs to it: caption, tip, legend, table.
   * labels: of the series; rows: [x, value, ...]; colours: a function that gives one for each series;
   * tip(i, row): lines on series i at the row; lines: none for bars.
   */
  function plot(parent, { id, caption, label, labels, rows, colours, options = {}, tip, tableTitle, makeTable, high = false, height = 0, ofTime = true }) {
    const box = el('div', { class: `plot${high ? ' high' : ''}`, id, role: 'img', 'aria-label': label });
    if (height) box.style.height = `${height}px`;
    const hint = el('div', { class: 'tip', hidden: true });
    const legend = el('ul', { class: 'legend' });
    parent.append(el('figure', {}, el('figcaption', {}, caption), box, legend, tableTitle ? hiddenTable(tableTitle, makeTable) : null));
    const options_ = base => ({
      ...base, ...options, labels: ['x', ...labels], colors: colours(),
      axes: { x: { ...base.axes.x, ...options.axes?.x }, y: { ...base.axes.y, ...options.axes?.y } },
    });
    const graph = new Dygraph(box, rows, {
      ...options_(baseOptions()),
      highlightCallback: (event, x, points, row) => {
        const near = points.reduce((best, p) => Number.isFinite(p.canvasy) && (!best || Math.abs(p.canvasy - event.offsetY) < Math.abs(best.canvasy - event.offsetY)) ? p : best, null);
        const lines = near ? tip(graph.getLabels().indexOf(near.name) - 1, row, x) : null;
        showTip(hint, box, near ? near.canvasx : 0, lines);
      },
      unhighlightCallback: () => { hint.hidden = true; },
    });
    box.append(hint);
    restyle.push(() => {
      graph.updateOptions(options_(baseOptions()));
      drawLegend();
    });
    function drawLegend() {
      if (labels.length < 2 || options.noLegend) return;
      const shades = colours();
      legend.replaceChildren(...labels.map((text, i) => el('li', {}, legendButton(graph, text, shades[i], i))));
    }
    drawLegend();
    if (ofTime) plots.push(graph);
    return { graph, box, change(next) {
      ({ labels, rows, colours, tip } = next);
      graph.updateOptions({ file: rows, labels: ['x', ...labels], colors: colours(), visibility: labels.map(() => true) });
      drawLegend();
    } };
  }

  function legendButton(graph, text, shade, i) {
    const swatch = el('span', { class: 'swatch' });
    swatch.style.background = shade;
    const button = el('button', { type: 'button', 'aria-pressed': String(graph.visibility()[i] !== false), title: 'Show or hide' }, swatch, name(text));
    button.addEventListener('click', () => {
      const visible = !graph.visibility()[i];
      graph.setVisibility(i, visible);
      button.setAttribute('aria-pressed', String(visible));
    });
    return button;
  }

  function showTip(hint, box, x, lines) {
    hint.hidden = !lines;
    if (!lines) return;
    hint.replaceChildren(...lines.map((line, i) => el(i ? 'span' : 'strong', {}, line)));
    const left = x > box.clientWidth / 2;
    hint.style.left = left ? '' : `${Math.round(x) + 14}px`;
    hint.style.right = left ? `${box.clientWidth - Math.round(x) + 14}px` : '';
    hint.style.top = '8px';
  }

  /** From the smallest to the largest values: one shape, where dygraphs draws one for each two points. */
  function band({ drawingContext: context, plotArea: area, points, color }) {
    const known = points.filter(point => Number.isFinite(point.canvasy));
    context.save();
    context.globalAlpha = 0.18;
    context.fillStyle = color;
    context.beginPath();
    for (const point of known) context.lineTo(point.canvasx, area.y + area.h * point.y_top);
    for (const point of known.reverse()) context.lineTo(point.canvasx, area.y + area.h * point.y_bottom);
    context.fill();
    context.restore();
  }

  // Limits come on top of all, above the grid.
  const LINES = [band, Dygraph.Plotters.linePlotter];

  /** For what comes seldom: a dot at the highest value, and a line down to the lowest of its bucket. */
  function whiskers({ drawingContext: context, plotArea: area, points, color }) {
    context.fillStyle = color;
    for (const point of points) {
      if (!Number.isFinite(point.canvasy)) continue;
      const low = area.y + area.h * point.y_bottom;
      context.globalAlpha = 0.35;
      context.fillRect(point.canvasx - 0.75, point.canvasy, 1.5, low - point.canvasy);
      context.globalAlpha = 1;
      context.fillRect(point.canvasx - 1.5, point.canvasy - 1.5, 3, 3);
    }
  }

  /** A line across at a limit, with its name. */
  function limitLine(value, text, horizontal = true) {
    return ({ drawingContext: context, plotArea: area, dygraph: graph, seriesIndex }) => {
      if (seriesIndex > 0) return;
      context.save();
      context.strokeStyle = context.fillStyle = colour('error');
      context.setLineDash([6, 4]);
      context.font = '12px system-ui, sans-serif';
      const write = (x, y) => { // readable on whatever is there
        context.save();
        context.setLineDash([]);
        context.strokeStyle = colour('card');
        context.lineWidth = 4;
        context.strokeText(text, x, y);
        context.fillText(text, x, y);
        context.restore();
      };
      context.beginPath();
      if (horizontal) {
        const y = graph.toDomYCoord(value);
        context.moveTo(area.x, y);
        context.lineTo(area.x + area.w, y);
        context.textAlign = 'right';
        write(area.x + area.w - 4, y - 5);
      } else {
        const x = graph.toDomXCoord(value);
        context.moveTo(x, area.y);
        context.lineTo(x, area.y + area.h);
        context.textAlign = x > area.x + area.w * 0.7 ? 'right' : 'left';
        write(x + (context.textAlign === 'left' ? 5 : -5), area.y + 12);
      }
      context.stroke();
      context.restore();
    };
  }

  /** Rows of all buckets in which any of the series has a point; the first and the last span all plots. */
  function rowsOf(all, value) {
    const buckets = [...new Set(all.flatMap(points => points.map(p => p.bucket)))].sort((a, b) => a - b);
    const byBucket = all.map(points => new Map(points.map(p => [p.bucket, p])));
    const nothing = all.map(() => [null, null, null]);
    const found = buckets.map(bucket => byBucket.map(points => points.get(bucket)));
    const rows = found.map((points, i) => [middle(buckets[i]), ...points.map(p => (p ? value(p) : [null, null, null]))]);
    return {
      rows: [[0, ...nothing], ...rows.filter(row => row[0] > 0 && row[0] < length), [length, ...nothing]],
      points: [null, ...found.filter((_, i) => rows[i][0] > 0 && rows[i][0] < length), null],
    };
  }

  const bucketText = x => series.timed && series.width >= 1
    ? `${clockTime(Math.floor(x / series.width) * series.width, 0)} to ${clockTime(Math.min(length, (Math.floor(x / series.width) + 1) * series.width), 0)}`
    : axisText(x, 2);

  /** A plot of series that are bands from their smallest to their largest value. */
  function bands(parent, { id, caption, label, entries, unit, upper = false, extra = {}, tableTitle, high }) {
    const all = entries.map(entry => entry.points);
    const { rows, points } = rowsOf(all, p => [p.low.value, upper ? p.high.value : (p.low.value + p.high.value) / 2, p.high.value]);
    const few = rows.length < 90;
    return plot(parent, {
      id, caption, label, rows, high,
      labels: entries.map(entry => entry.label),
      colours: () => entries.map((entry, i) => (entry.pid === undefined ? seriesColour(i) : pidColour(entry.pid))),
      options: { customBars: true, plotter: LINES, connectSeparatedPoints: true, drawPoints: few, pointSize: 2, ...extra },
      tip: (i, row, x) => {
        const point = points[row]?.[i];
        if (!point) return null;
        const line = sample => `${unit(sample.value)}: packet ${count(sample.packet)}, byte ${count(sample.byte)}`;
        const same = point.low.packet === point.high.packet;
        return [entries[i].label, bucketText(x), ...(same ? [line(point.high)] : [`highest ${line(point.high)}`, `lowest ${line(point.low)}`])];
      },
      tableTitle,
      makeTable: () => table([series.timed ? 'Time' : 'Packets from', 'Series', 'Lowest', 'At packet', 'Highest', 'At packet', 'Byte'],
        entries.flatMap(entry => entry.points.map(p => [axisText(p.bucket * series.width, 2), name(entry.label), unit(p.low.value), p.low.packet, unit(p.high.value), p.high.packet, p.high.byte]))),
    });
  }

  const leftOut = (n, noun) => n > 0 ? el('p', { class: 'note' }, `Not shown, to keep the page small: ${plural(n, `more ${noun}`)}.`) : null;
  const ruleOf = id => summary.rules.find(rule => rule.rule === id);
  const notJudged = id => {
    const rule = ruleOf(id);
    return !rule || rule.judged === 'yes' || !rule.why ? '' : ` (${rule.why})`;
  };
  const nothing = text => el('p', { class: 'note' }, text);

  // ---- verdict -----------------------------------------------------------------------------------

  const VERDICTS = { healthy: 'good', failed: 'error', insufficient: 'warning' };

  function drawHead() {
    const head = document.getElementById('head');
    const verdict = data.error ? badge('error', 'unreadable') : badge(VERDICTS[summary.verdict], summary.verdict);
    head.append(el('h1', { class: 'verdict' }, verdict, name(data.input)));
    if (data.error) head.append(el('p', { class: 'error' }, `${data.error}. What was read until then:`));
    if (summary.why.length && !data.error) {
      const because = { failed: 'Because of ', insufficient: 'Could not be judged: ' }[summary.verdict] ?? '';
      head.append(el('p', {}, because, summary.why.flatMap((id, i) => [i ? ', ' : '', el('strong', {}, id), ` ${data.rules[id].name}`])));
    }
    head.append(el('p', { class: 'facts' }, data.facts), ...data.remarks.map(text => el('p', {}, text)));
  }

  function drawNotJudged() {
    const list = judged => {
      const reasons = new Map();
      for (const rule of summary.rules.filter(r => r.judged === judged)) {
        const pids = rule.pids.length ? ` (${rule.pids.length === 1 ? 'pid' : 'pids'} ${rule.pids.slice(0, 8).join(', ')}${rule.pids.length > 8 ? ` and ${rule.pids.length - 8} more` : ''})` : '';
        const why = (rule.why ?? 'no reason known') + pids;
        reasons.set(why, [...(reasons.get(why) ?? []), rule.rule]);
      }
      return [...reasons].map(([why, ids]) => [why, ids.map(id => `${id} ${data.rules[id].name}`).join(', ')]);
    };
    const no = list('no');
    const node = section('judged', 'What could not be judged',
      no.length ? table(['Why', 'Rules'], no, { classes: 'wide', stack: true }) : nothing('Everything that applies was judged.'));
    const away = list('not_applicable');
    if (away.length)
      node.append(el('details', {}, el('summary', {}, 'What does not apply to this capture'), table(['Why', 'Rules'], away, { classes: 'wide', stack: true })));
    node.append(hiddenTable('All rules', () => table(['Rule', 'Name', 'Judged', 'Events', 'Consequences of others', 'First', 'Last'],
      summary.rules.map(r => [r.rule, data.rules[r.rule].name, r.judged.replace('_', ' '), r.count, r.consequences, r.first ? placeText(r.first) : '', r.last ? placeText(r.last) : '']))));
  }

  // ---- programmes --------------------------------------------------------------------------------

  function drawPrograms() {
    const node = section('programs', 'Programs');
    if (!summary.programs.length) node.append(nothing('No program is announced: there is no PAT, or it is empty.'));
    const card = program => {
      const by = program.provider ? [' by ', name(program.provider)] : [];
      const about = [`PMT on pid ${program.pmt_pid}`, program.pcr_pid !== null ? `PCR on pid ${program.pcr_pid}` : program.streams.length ? 'no PCR' : 'which never came'].join(', ');
      return [el('h3', {}, `Program ${program.number} `, program.name ? name(program.name) : '', ...by),
        el('p', { class: 'note' }, about),
        program.streams.length ? table(['pid', 'Kind', 'Codec', 'Language', 'Packets', 'Bit rate', 'Lost', 'Scrambled'],
          program.streams.map(s => [String(s.pid), s.kind, s.codec, s.language ? name(s.language) : '', s.packets ? s.packets : badge('warning', 'no packets'),
            s.bitrate_bps === null ? '' : bitRate(s.bitrate_bps), s.lost ? badge('error', count(s.lost)) : '0',
            !s.scrambled ? '' : s.scrambled === s.packets ? 'all' : 'partly']), { classes: 'wide', stack: true }) : ''];
    };
    // As many as leave the plots within reach, one at least.
    let lines = 0;
    const beyond = summary.programs.findIndex(program => (lines += 3 + program.streams.length) > 40);
    const shown = beyond < 0 ? summary.programs.length : Math.max(1, beyond);
    node.append(...summary.programs.slice(0, shown).flatMap(card));
    if (summary.programs.length > shown)
      node.append(hiddenTable(plural(summary.programs.length - shown, 'more program'), () => el('div', {}, summary.programs.slice(shown).flatMap(card))));
  }

  // ---- findings ----------------------------------------------------------------------------------

  const findings = data.findings.map(record => {
    const from = axisOf(record.begin);
    return { record, from, to: Math.max(from, axisOf(record.end)) };
  });
  const lanes = Object.keys(data.rules).filter(id => data.findings.some(f => f.rule === id) || data.more.some(m => m.rule === id));
  const moreCounts = data.more.flatMap(more => {
    const x = summed(more.x);
    const packets = summed(more.packet);
    const beyond = summed(more.beyond);
    return x.map((bucket, i) => ({
      rule: more.rule, severity: more.severity[i], events: more.events[i], packet: packets[i], byte: byteOf(packets[i], beyond[i]),
      from: axisOfPacket(bucket * more.width + 1), to: axisOfPacket((bucket + 1) * more.width + 1),
    }));
  });
  let chosen = null;
  let timeline = null;
  const selected = el('div', { id: 'selected', 'aria-live': 'polite' }, nothing('Choose a finding, in the time line or in a table, to read what it is.'));

  /** Paragraphs of a page of findings.md. */
  function ruleText(id) {
    return data.rules[id].page.split(/\n\n+/).slice(1).map(paragraph => el('p', {},
      paragraph.replace(/\n/g, ' ').split(/(\*\*.+?\*\*|`.+?`)/).map(part =>
        part.startsWith('**') ? el('strong', {}, part.slice(2, -2)) : part.startsWith('`') ? el('code', {}, part.slice(1, -1)) : part)));
  }

  const fullName = record => `${record.rule} ${record.name}${record.kind ? `, ${record.kind.replace('_', ' ')}` : ''}`;

  function choose(finding, { zoom = false, scroll = true } = {}) {
    chosen = finding;
    const { record } = finding;
    const i = findings.indexOf(finding);
    const step = (to, text) => el('button', { type: 'button', class: 'act', disabled: !findings[to], onclick: () => choose(findings[to], { zoom }) }, text);
    const about = [['Programs', record.programs.map(programText).join(', ')], ['Stream', record.pid === null ? '' : pidText(record.pid)],
      [record.shape === 'point' ? 'At' : 'From', placeText(record.begin)], ['To', record.shape === 'point' ? '' : placeText(record.end) + (record.open ? ' (the end of the input)' : '')],
      ['Events', record.count > 1 ? count(record.count) : ''], ['Sure', record.sure === 'exact' ? '' : { guess: 'a guess', modulo_16: 'the number modulo 16 only' }[record.sure]]];
    selected.className = `selected ${record.severity}`;
    selected.replaceChildren(
      el('h3', {}, badge(record.severity, record.severity), ` ${fullName(record)}`),
      el('p', {}, name(record.text)),
      el('dl', {}, about.filter(([, text]) => text).flatMap(([term, text]) => [el('dt', {}, term), el('dd', {}, name(text))])),
      el('p', {}, step(i - 1, 'Previous'), ' ', step(i + 1, 'Next'), ' ',
        el('button', { type: 'button', class: 'act', onclick: () => zoomTo(finding.from, finding.to) }, 'Zoom to it')),
      ...ruleText(record.rule),
      el('details', {}, el('summary', {}, 'The record'), el('pre', { tabindex: 0 }, JSON.stringify(record, null, 2))));
    if (zoom) zoomTo(finding.from, finding.to);
    timeline?.updateOptions({});
    if (scroll) selected.scrollIntoView({ block: 'nearest' });
  }

  function drawFindings() {
    const node = section('findings', 'What was found');
    if (!data.groups.length) {
      node.append(nothing('Nothing.'));
      return;
    }
    const same = (a, b) => a && a.rule === b.rule && a.kind === b.kind && a.severity === b.severity;
    const rows = data.groups.map((group, i) => {
      const first = findings.find(f => f.record.rule === group.rule && f.record.pid === group.pid && f.record.kind === group.kind && f.record.severity === group.severity);
      const title = `${group.rule} ${data.rules[group.rule].name}${group.kind ? `, ${group.kind.replace('_', ' ')}` : ''}`;
      return [badge(group.severity, group.severity),
        el('span', {}, first ? el('button', { type: 'button', class: 'plain', onclick: () => choose(first, { zoom: false }) }, title) : title,
          same(data.groups[i - 1], group) ? null : [el('br'), el('span', { class: 'meaning' }, group.meaning)]),
        name(`${group.pid === null ? '' : pidText(group.pid)}${group.programs.length ? ` (${group.programs.map(programText).join(', ')})` : ''}`), name(group.text)];
    });
    const shown = rows.slice(0, 25);
    const headings = ['Severity', 'What', 'Where', 'How often'];
    node.append(table(headings, shown, { classes: 'wide', stack: true }));
    if (rows.length > shown.length)
      node.append(hiddenTable(plural(rows.length - shown.length, 'more line'), () => table(headings, rows.slice(shown.length), { classes: 'wide', stack: true })));
    if (data.groups_left_out) node.append(leftOut(data.groups_left_out, 'line'));
    const consequences = summary.rules.reduce((sum, rule) => sum + rule.consequences, 0);
    if (consequences) node.append(nothing(`${plural(consequences, 'more event')} followed from these and ${consequences === 1 ? 'is' : 'are'} not listed.`));
    node.classList.add('long');
  }

  function drawTimeline() {
    const node = section('timeline-section', 'Time line');
    if (!lanes.length) {
      node.append(nothing('No findings.'));
      return;
    }
    const hidden = moreCounts.reduce((sum, more) => sum + more.events, 0);
    const shade = severity => colour(severity);
    const lane = rule => lanes.length - 1 - lanes.indexOf(rule);
    const draw = ({ drawingContext: context, plotArea: area, dygraph: graph }) => {
      const x = value => Math.min(area.x + area.w + 5, Math.max(area.x - 5, graph.toDomXCoord(value)));
      const [from, to] = graph.xAxisRange();
      const bar = (item, severity, half, alpha, least) => {
        if (item.to < from || item.from > to) return;
        const y = graph.toDomYCoord(lane(item.rule ?? item.record.rule) + 0.5);
        const left = x(item.from);
        const width = Math.max(least, x(item.to) - left);
        context.globalAlpha = alpha;
        context.fillStyle = shade(severity);
        context.fillRect(left - least / 2, y - half, width, 2 * half);
      };
      const height = Math.max(3, Math.min(9, area.h / lanes.length / 2 - 2));
      context.save();
      context.beginPath();
      context.rect(area.x, area.y, area.w, area.h);
      context.clip();
      for (const more of moreCounts) bar(more, more.severity, height * 0.55, 0.45, 2);
      for (const severity of ['info', 'warning', 'error'])
        for (const finding of findings)
          if (finding.record.severity === severity) bar(finding, severity, height, finding.to > finding.from ? 0.7 : 1, 3);
      if (chosen) {
        context.globalAlpha = 1;
        context.strokeStyle = colour('text');
        context.lineWidth = 2;
        const y = graph.toDomYCoord(lane(chosen.record.rule) + 0.5);
        const left = x(chosen.from);
        context.strokeRect(left - 4, y - height - 3, Math.max(6, x(chosen.to) - left + 5), 2 * height + 6);
      }
      context.restore();
    };
    const intro = el('p', { class: 'note' }, 'A row for each rule. Colours: ', badge('error', 'error'), ' ', badge('warning', 'warning'), ' ', badge('info', 'info'),
      hidden ? ` The paler, lower bars stand for ${plural(hidden, 'event')} that are only counted.` : '');
    const rows = [[0, 0], [length, 0]];
    const made = plot(node, {
      id: 'timeline', height: Math.max(90, 30 + 26 * lanes.length), rows, labels: ['findings'], colours: () => ['transparent'],
      caption: 'Click on a finding to read it. Drag sideways in any plot to zoom all of them, double-click to see all.',
      label: `Time line of ${plural(findings.length, 'finding')} of the rules ${lanes.join(', ')}; the table below has them all.`,
      options: {
        valueRange: [0, lanes.length], strokeWidth: 0, highlightCircleSize: 0, plotter: draw, noLegend: true,
        clickCallback: event => {
          const hit = nearest(event.offsetX, event.offsetY);
          if (hit?.record) choose(hit);
        },
        axes: { y: { drawGrid: true, ticker: () => lanes.map(rule => ({ v: lane(rule) + 0.5, label: rule })) } },
      },
      tip: () => null,
      tableTitle: `All ${plural(findings.length, 'finding')} as a table`,
      makeTable: () => table(['Finding', 'Severity', 'Stream', 'Begins at', 'What happened'], findings.map(f => [
        el('button', { type: 'button', class: 'plain', onclick: () => choose(f, { zoom: false }) }, fullName(f.record)), f.record.severity,
        f.record.pid === null ? '' : name(pidText(f.record.pid)), placeText(f.record.begin), name(f.record.text)])),
    });
    timeline = made.graph;
    made.box.classList.add('timeline');
    const nearest = (px, py) => {
      const row = lanes[lanes.length - 1 - Math.floor(timeline.toDataYCoord(py))];
      const distance = item => {
        const left = timeline.toDomXCoord(item.from);
        const right = timeline.toDomXCoord(item.to);
        return px < left ? left - px : px > right ? px - right : 0;
      };
      // Of several at one place the shortest: a long one can be hit elsewhere.
      let best = null;
      for (const item of [...findings, ...moreCounts]) {
        if ((item.rule ?? item.record.rule) !== row) continue;
        const far = distance(item);
        if (far <= 8 && (!best || far < best.far || (far === best.far && item.to - item.from < best.item.to - best.item.from))) best = { item, far };
      }
      return best?.item ?? null;
    };
    const hint = made.box.querySelector('.tip');
    made.box.addEventListener('mousemove', event => {
      const area = made.box.getBoundingClientRect();
      const px = event.clientX - area.left;
      const hit = nearest(px, event.clientY - area.top);
      showTip(hint, made.box, px, !hit ? null : hit.record
        ? [fullName(hit.record), name(hit.record.text), placeText(hit.record.begin)]
        : [`${hit.rule} ${data.rules[hit.rule].name}`, `${plural(hit.events, 'event')} that ${hit.events === 1 ? 'is' : 'are'} only counted`, `the first at packet ${count(hit.packet)}, byte ${count(hit.byte)}`]);
    });
    made.box.addEventListener('mouseleave', () => { hint.hidden = true; });
    node.insertBefore(intro, node.children[1]);
    node.append(selected);
    if (hidden) node.append(hiddenTable('Events that are only counted', () => table(['Rule', 'Events', 'Severity', 'First packet', 'Byte', series.timed ? 'Time' : 'From'],
      moreCounts.map(m => [m.rule, m.events, m.severity, m.packet, m.byte, axisText(m.from, 2)]))));
    node.classList.add('long');
  }

  // ---- bit rate ----------------------------------------------------------------------------------

  function drawRates() {
    const node = section('rates', series.timed ? 'Bit rate' : 'Packets');
    // A last bucket of which little is there belongs to the one before it.
    const buckets = Math.max(1, Math.round(length / series.width));
    const share = bucket => (bucket < buckets - 1 ? series.width : Math.max(series.width * 1e-3, length - bucket * series.width));
    const packetsIn = (packets, bucket) => (bucket < buckets - 1 ? packets[bucket] ?? 0 : packets.slice(bucket).reduce((sum, n) => sum + n, 0));
    const value = (packets, bucket) => series.timed ? packets * BITS / share(bucket) / 1e6 : packets / share(bucket) * 100;
    const text = v => series.timed ? bitRate(v * 1e6) : `${digits(v, 1)} %`;
    // Those with most packets lie at the bottom, null packets on top of all.
    const views = {
      programs: [...series.programs.map(p => ({ label: programText(p.number), packets: p.packets })),
        { label: `${plural(series.programs_left_out, 'more program')}`, packets: series.other_programs, rest: true },
        { label: 'tables and what no program has', packets: series.no_program, rest: true }, { label: 'null packets', packets: series.nulls, nulls: true }],
      pids: [...series.pids.map(p => ({ label: pidText(p.pid), pid: p.pid, packets: p.packets })),
        { label: series.pids_left_out ? plural(series.pids_left_out, 'more pid') : 'damaged packets', packets: series.other_pids, rest: true }, { label: 'null packets', packets: series.nulls, nulls: true }],
    };
    const viewOf = which => {
      const entries = views[which].filter(entry => entry.packets.some(n => n > 0)).reverse();
      const at = entries.map(entry => Array.from({ length: buckets }, (_, i) => value(packetsIn(entry.packets, i), i)));
      const row = (x, bucket) => [x, ...at.map(values => values[bucket])];
      const rows = Array.from({ length: buckets }, (_, i) => row(middle(i), i)).filter(r => r[0] > 0 && r[0] < length);
      rows.unshift(row(0, 0));
      rows.push(row(length, buckets - 1));
      const shades = () => entries.map((entry, i) => entry.nulls ? colour('nulls') : entry.rest ? colour('rest') : entry.pid !== undefined ? pidColour(entry.pid) : seriesColour(entries.length - 1 - i));
      return {
        labels: entries.map(entry => entry.label), rows, colours: shades,
        tip: (i, _, x) => {
          const bucket = Math.min(buckets - 1, Math.floor(x / series.width));
          const total = at.reduce((sum, values) => sum + values[bucket], 0);
          return [entries[i].label, bucketText(x), text(at[i][bucket]), `of ${text(total)}`, `from packet ${count(firstPacket[bucket] ?? 1)}, byte ${count(byteOf(firstPacket[bucket] ?? 1, firstBeyond[bucket] ?? 0))} on`];
        },
        makeTable: () => table([series.timed ? 'From' : 'Packets from', 'First packet', 'Byte', ...entries.map(e => e.label)], Array.from({ length: buckets }, (_, b) =>
          [axisText(b * series.width, 2), firstPacket[b] ?? '', byteOf(firstPacket[b] ?? 1, firstBeyond[b] ?? 0), ...at.map(values => text(values[b]))])),
      };
    };
    let current = 'programs';
    const choices = ['programs', 'pids'].map(which => el('button', { type: 'button', 'aria-pressed': String(which === current), onclick: () => {
      current = which;
      made.change(viewOf(which));
      choices.forEach((button, i) => button.setAttribute('aria-pressed', String(['programs', 'pids'][i] === which)));
    } }, `by ${which === 'pids' ? 'pid' : 'program'}`));
    node.append(el('div', { class: 'choice' }, choices));
    const unit = series.timed ? 'Mbit/s' : '% of the packets';
    const every = series.timed ? clockTime(series.width, series.width < 1 ? 1 : 0) : plural(series.width, 'packet');
    const made = plot(node, {
      id: 'rate-plot', ...viewOf(current), high: true,
      caption: `${unit}, stacked, averages over ${every}.`,
      label: `Bit rate over time, by program or pid, in ${unit}; the table below has the numbers.`,
      options: { stackedGraph: true, fillAlpha: 0.75, strokeWidth: 0.5, includeZero: true },
      tableTitle: 'Bit rate as a table', makeTable: () => viewOf(current).makeTable(),
    });
    if (series.timed && series.width > 0.15 && series.rate.x.length)
      bands(node, {
        id: 'peaks', caption: 'All packets: the lowest and the highest bit rate over 100 ms or a little more, Mbit/s.', upper: false,
        label: 'Lowest and highest total bit rate over 100 ms.', unit: v => bitRate(v * 1e6),
        entries: [{ label: 'all packets', points: pointsOf(series.rate).map(p => ({ ...p, low: { ...p.low, value: p.low.value / 1e6 }, high: { ...p.high, value: p.high.value / 1e6 } })) }],
        extra: { includeZero: true }, tableTitle: 'Lowest and highest bit rate as a table',
      });
    const more = [leftOut(series.pids_left_out, 'pid'), leftOut(series.programs_left_out, 'program')];
    node.append(...more.filter(Boolean));
  }

  // ---- PCR ---------------------------------------------------------------------------------------

  const highest = entries => entries.reduce((most, entry) => entry.points.reduce((m, p) => Math.max(m, p.high.value), most), 0);

  function drawIntervals() {
    const node = section('intervals', 'PCR interval');
    const entries = series.pcr_intervals.map(s => ({ label: pidText(s.pid), pid: s.pid, points: pointsOf(s.values) }));
    if (!entries.length) {
      node.append(nothing(series.timed ? 'No pid has two PCRs.' : `Not measured${notJudged('2.3.a') || ': there is no clock'}.`));
      return;
    }
    const limit = data.limits.pcr_ms;
    const worst = highest(entries);
    const pair = el('div', { class: 'pair' });
    node.append(pair);
    bands(pair.appendChild(el('div')), {
      id: 'interval-plot', caption: `From PCR to PCR, ms; the limit is ${milliseconds(limit)}.`, entries, unit: milliseconds, upper: true,
      label: `PCR intervals over time, the longest ${milliseconds(worst)}, the limit ${milliseconds(limit)}.`,
      extra: { valueRange: [0, Math.max(limit * 1.15, worst * 1.05)], plotter: [...LINES, limitLine(limit, `limit ${milliseconds(limit)}`)] },
      tableTitle: 'PCR intervals as a table',
    });
    drawHistogram(pair.appendChild(el('div')), limit);
    node.append(...[leftOut(series.left_out.pcr_intervals, 'pid')].filter(Boolean));
  }

  function drawHistogram(parent, limit) {
    const sums = series.pcr_intervals[0].histogram.map((_, bin) => series.pcr_intervals.reduce((sum, s) => sum + s.histogram[bin], 0));
    const end = sums.length - 1;
    const last = Math.min(end, Math.ceil(Math.max(limit * 1.15, sums.reduce((l, n, bin) => (n ? bin : l), 0) + 2)));
    const all = sums.reduce((a, b) => a + b, 0);
    const over = sums.reduce((sum, n, bin) => sum + (bin >= limit ? n : 0), 0);
    const text = bin => bin === end ? `${end} ms and more` : `${bin} to ${bin + 1} ms`;
    plot(parent, {
      id: 'histogram', ofTime: false, labels: ['PCRs'], colours: () => [pidColour(series.pcr_intervals[0].pid)],
      caption: `How many intervals were how long${series.pcr_intervals.length > 1 ? ', all pids together' : ''}.`,
      label: `Histogram of ${plural(all, 'PCR interval')}; ${count(over)} of a millisecond class above the limit of ${milliseconds(limit)}.`,
      rows: [[0, null], ...sums.slice(0, last + 1).map((n, bin) => [bin + 0.5, n || null]), [last + 1, null]],
      options: {
        plotter: [bars(() => 1, point => (point.xval > limit ? colour('error') : null)), limitLine(limit, `limit ${milliseconds(limit)}`, false)], includeZero: true, dateWindow: [0, last + 1], noLegend: true,
        interactionModel: {},
        axes: { x: { ticker: (...args) => Dygraph.numericTicks(...args), axisLabelFormatter: v => `${v} ms`, axisLabelWidth: 60 } },
      },
      tip: (_, row, x) => sums[Math.floor(x)] ? [plural(sums[Math.floor(x)], 'interval'), text(Math.floor(x))] : null,
      tableTitle: 'Histogram as a table',
      makeTable: () => table(['Interval', 'PCRs'], sums.map((n, bin) => [text(bin), n]).filter(([, n]) => n)),
    });
  }

  /** Bars, however small never less than what can be seen. */
  function bars(width, special = () => null) {
    return event => {
      const { drawingContext: context, dygraph: graph, points } = event;
      const bottom = graph.toDomYCoord(0);
      const wide = Math.max(3, (graph.toDomXCoord(width()) - graph.toDomXCoord(0)) * 0.85);
      for (const point of points) {
        if (!(point.yval > 0)) continue;
        const height = Math.max(3, bottom - point.canvasy);
        context.fillStyle = special(point) ?? event.color;
        context.fillRect(point.canvasx - wide / 2, bottom - height, wide, height);
      }
    };
  }

  function drawErrors() {
    const node = section('errors', 'PCR jitter');
    const limit = data.limits.pcr_accuracy_ns;
    const entries = series.pcr_errors.map(s => ({ label: pidText(s.pid), pid: s.pid, points: pointsOf(s.values) }));
    if (!entries.length) {
      node.append(nothing(`Not judged${notJudged('2.4')}. Whether a PCR stands where it should can be told at a constant rate only.`));
      return;
    }
    const worst = entries.reduce((most, e) => e.points.reduce((m, p) => Math.max(m, Math.abs(p.low.value), Math.abs(p.high.value)), most), 0);
    const upper = limitLine(limit, `limit ±${nanoseconds(limit)}`);
    const lower = limitLine(-limit, '');
    const size = Math.max(limit * 1.25, worst * 1.1);
    bands(node, {
      id: 'error-plot', entries, unit: nanoseconds, caption: `How far each PCR is off the line of a constant rate, ns.${notJudged('2.4')}`,
      label: `PCR jitter over time, at most ${nanoseconds(worst)}, the limit ${nanoseconds(limit)}.`,
      extra: { valueRange: [-size, size], plotter: [...LINES, upper, lower] },
      tableTitle: 'PCR jitter as a table',
    });
    node.append(...[leftOut(series.left_out.pcr_errors, 'pid')].filter(Boolean));
  }

  // ---- stamps ------------------------------------------------------------------------------------

  function drawLeads() {
    const node = section('leads', 'Video and audio ahead of the clock');
    const entries = series.leads.map(s => ({ label: pidText(s.pid), pid: s.pid, points: pointsOf(s.values) }));
    if (!entries.length) {
      node.append(nothing('No stamps of video or audio that could be held against a clock: none came, or they are scrambled.'));
      return;
    }
    const zero = limitLine(0, 'too late below');
    bands(node, {
      id: 'lead-plot', entries, unit: milliseconds, high: true,
      caption: 'How long before its DTS (PTS where there is none) a frame arrives, ms. Below 0 it comes too late (q.1).',
      label: 'Lead of the time stamps of video and audio over the clock of their program.',
      extra: { includeZero: true, plotter: [...LINES, zero] }, tableTitle: 'Lead over the clock as a table',
    });
    node.append(...[leftOut(series.left_out.leads, 'stream')].filter(Boolean));
  }

  function drawOffsets() {
    const node = section('offsets', 'Sound against picture');
    const entries = series.offsets.map(s => ({ label: `${programText(s.program)}: ${pidText(s.audio)}`, pid: s.audio, points: pointsOf(s.values), slope: s.slope_ms_per_hour }));
    if (!entries.length) {
      node.append(nothing('No program has stamps of both video and audio.'));
      return;
    }
    bands(node, {
      id: 'offset-plot', entries, unit: milliseconds,
      caption: 'Stamps of the sound minus those of the picture that arrive with them, ms. Higher: the sound is later.',
      label: 'Offset of the stamps of the sound against those of the picture; its slope is below.', tableTitle: 'Offset as a table',
    });
    const slope = perHour => {
      if (perHour === null) return 'too few stamps to tell a slope';
      if (length >= 600) return `${digits(perHour, 2)} ms per hour`;
      return `${digits(perHour / 3600, 3)} ms per second`;
    };
    node.append(el('ul', {}, entries.map(e => el('li', {}, name(e.label), `: slope `, el('strong', {}, slope(e.slope))))),
      nothing('Pictures are sent earlier than the sound that belongs to them, so a level line is right wherever it lies. A slope is two clocks that drift apart, a step a splice or a fault. The slope is the median of those between pairs of places: single steps do not count.'),
      ...[leftOut(series.left_out.offsets, 'stream')].filter(Boolean));
  }

  // ---- losses ------------------------------------------------------------------------------------

  function drawLosses() {
    const node = section('losses', 'Lost packets');
    if (!series.losses.length) {
      node.append(nothing('None.'));
      return;
    }
    const entries = series.losses.map(l => {
      const [events, packets, packet, beyond] = [l.events, l.packets, l.packet, l.beyond].map(summed);
      return { label: pidText(l.pid), pid: l.pid, points: summed(l.x).map((bucket, i) => ({ bucket, events: events[i], packets: packets[i], packet: packet[i], byte: byteOf(packet[i], beyond[i]) })) };
    }).sort((a, b) => b.points.reduce((s, p) => s + p.packets, 0) - a.points.reduce((s, p) => s + p.packets, 0));
    const { rows, points } = rowsOf(entries.map(e => e.points), p => [Math.max(p.events, p.packets)]);
    const flat = rows.map(row => [row[0], ...row.slice(1).map(v => v[0] ?? 0)]);
    const total = entries.reduce((sum, e) => sum + e.points.reduce((s, p) => s + p.packets, 0), 0);
    plot(node, {
      id: 'loss-plot', rows: flat, labels: entries.map(e => e.label), colours: () => entries.map(e => pidColour(e.pid)),
      caption: 'Packets lost, by pid, stacked. No bar is lower than can be seen, however few packets it stands for.',
      label: `Losses over time: ${plural(total, 'packet')} on ${plural(entries.length, 'pid')}.`,
      options: { stackedGraph: true, includeZero: true, plotter: bars(() => series.width) },
      tip: (i, row, x) => {
        const point = points[row]?.[i];
        return point ? [entries[i].label, bucketText(x), `${plural(point.packets, 'packet')} in ${plural(point.events, 'loss').replace(/losss$/, 'losses')}`,
          `most at packet ${count(point.packet)}, byte ${count(point.byte)}`] : null;
      },
      tableTitle: 'Losses as a table',
      makeTable: () => table([series.timed ? 'From' : 'Packets from', 'Stream', 'Packets', 'Losses', 'Most at packet', 'Byte'],
        entries.flatMap(e => e.points.map(p => [axisText(p.bucket * series.width, 2), name(e.label), p.packets, p.events, p.packet, p.byte]))),
    });
    node.append(table(['Stream', 'Packets lost', 'Losses'], entries.slice(0, 24).map(e => [name(e.label), e.points.reduce((s, p) => s + p.packets, 0), e.points.reduce((s, p) => s + p.events, 0)])),
      ...[leftOut(series.left_out.losses, 'pid')].filter(Boolean));
  }

  // ---- tables ------------------------------------------------------------------------------------

  const TABLES = { 0x00: 'PAT', 0x02: 'PMT', 0x40: 'NIT', 0x41: 'NIT other', 0x42: 'SDT', 0x46: 'SDT other', 0x4a: 'BAT', 0x4e: 'EIT present/following', 0x4f: 'EIT other', 0x70: 'TDT', 0x71: 'RST', 0x73: 'TOT' };
  const tableName = t => `${TABLES[t.table_id] ?? (t.table_id >= 0x50 && t.table_id < 0x70 ? `EIT schedule 0x${t.table_id.toString(16)}` : `table 0x${t.table_id.toString(16)}`)}, pid ${t.pid}`;

  function drawTables() {
    const node = section('tables', 'Repetition of tables');
    if (!series.tables.length) {
      node.append(nothing(`Nothing to show${notJudged('1.3.a') || ': no table came twice'}.`));
    } else {
      const entries = series.tables.map(t => ({ label: tableName(t), limit: t.limit_ms,
        points: pointsOf(t.values).map(p => ({ ...p, low: { ...p.low, value: p.low.value / t.limit_ms * 100 }, high: { ...p.high, value: p.high.value / t.limit_ms * 100 } })) }));
      const worst = highest(entries);
      const shown = entries.map(e => ({ ...e, label: `${e.label} (limit ${milliseconds(e.limit)})` }));
      bands(node, {
        id: 'table-plot', entries: shown, unit: v => `${digits(v, 1)} %`, upper: true,
        caption: 'From section to section, in per cent of what the rule allows for that table.',
        label: `Repetition of ${plural(entries.length, 'table')}; the longest distance is ${digits(worst, 0)} % of its limit.`,
        extra: { valueRange: [0, Math.max(115, worst * 1.08)], plotter: [whiskers, limitLine(100, 'limit')] }, tableTitle: 'Repetition as a table',
      });
      node.append(table(['Table', 'Longest distance', 'Limit'], entries.map(e => {
        const most = e.points.reduce((m, p) => Math.max(m, p.high.value), 0);
        return [e.label, most > 100 ? badge('error', milliseconds(most * e.limit / 100)) : milliseconds(most * e.limit / 100), milliseconds(e.limit)];
      })), ...[leftOut(series.left_out.tables, 'table')].filter(Boolean));
    }
    const changes = findings.filter(f => f.record.rule === 'q.4');
    node.append(el('h3', {}, 'Changes of tables'));
    if (!changes.length) {
      node.append(nothing('None.'));
      return;
    }
    const rows = changes.map(f => [el('button', { type: 'button', class: 'plain', onclick: () => choose(f, { zoom: false }) }, axisText(f.from, 3)), f.record.begin.packet, f.record.begin.byte, name(f.record.text)]);
    node.append(table([series.timed ? 'Time' : 'Place', 'Packet', 'Byte', 'What changed'], rows.slice(0, 30), { classes: 'wide', stack: true }));
    if (rows.length > 30)
      node.append(hiddenTable(plural(rows.length - 30, 'more change'), () => table(['Time', 'Packet', 'Byte', 'What changed'], rows.slice(30), { classes: 'wide', stack: true })));
  }

  // ---- zoom --------------------------------------------------------------------------------------

  function zoomTo(from, to) {
    if (!plots.length) return;
    const least = Math.max(length * 1e-5, series.timed ? 0.01 : 10);
    const room = Math.max((to - from) * 0.5, length * 0.005, least);
    show(from - room, to + room);
  }

  function show(from, to) {
    const least = Math.max(length * 1e-6, series.timed ? 0.005 : 4);
    const wide = Math.min(length, Math.max(least, to - from));
    const begin = Math.max(0, Math.min(length - wide, from));
    if (wide >= length) plots[0].resetZoom();
    else plots[0].updateOptions({ dateWindow: [begin, begin + wide] });
  }

  function drawToolbar() {
    const bar = document.getElementById('toolbar');
    if (!plots.length) return;
    const output = el('output', { 'aria-live': 'polite' });
    const button = (text, label, act) => el('button', { type: 'button', 'aria-label': label, title: label, onclick: () => {
      const [from, to] = plots[0].xAxisRange();
      act(from, to, to - from);
    } }, text);
    bar.append(output,
      button('All', 'Show the whole capture', () => show(0, length)),
      button('+', 'Zoom in', (from, to, wide) => show(from + wide / 4, to - wide / 4)),
      button('−', 'Zoom out', (from, to, wide) => show(from - wide / 2, to + wide / 2)),
      button('◀', 'Go back', (from, to, wide) => show(from - wide / 2, to - wide / 2)),
      button('▶', 'Go on', (from, to, wide) => show(from + wide / 2, to + wide / 2)));
    bar.hidden = false;
    const tell = () => {
      const [from, to] = plots[0].xAxisRange();
      const decimals = to - from < 10 ? 3 : to - from < 120 ? 1 : 0;
      output.value = `Shown: ${axisText(Math.max(0, from), decimals)} to ${axisText(Math.min(length, to), decimals)}${to - from < length * 0.9999 ? '' : ' (all)'}`;
    };
    plots[0].updateOptions({ drawCallback: tell }, true);
    if (plots.length > 1) Dygraph.synchronize(plots, { zoom: true, selection: true, range: false });
    tell();
  }

  // ---- all ---------------------------------------------------------------------------------------

  async function drawAll() {
    const steps = [drawHead, drawTimeline, drawFindings, drawNotJudged, drawPrograms];
    if (summary.packets > 0) steps.push(drawRates, drawIntervals, drawErrors, drawLeads, drawOffsets, drawLosses, drawTables);
    for (const step of steps) {
      step();
      await new Promise(resolve => { setTimeout(resolve); }); // the browser shows what there is
    }
    drawToolbar();
    document.documentElement.dataset.ready = 'yes';
  }

  const repaint = () => {
    palette.clear();
    restyle.forEach(paint => paint());
  };
  matchMedia('(prefers-color-scheme: dark)').addEventListener('change', repaint);
  for (const [event, paper] of [['beforeprint', true], ['afterprint', false]])
    addEventListener(event, () => {
      // As wide as on the screen, but smaller: browsers print no plot that has just got another size.
      const wide = document.body.getBoundingClientRect().width;
      document.body.style.width = paper ? `${wide}px` : '';
      document.body.style.zoom = paper ? Math.min(1, PAPER_WIDTH / wide) : '';
      document.documentElement.classList.toggle('paper', paper);
      repaint();
    });

  // For those who look at the page with a program.
  window.quarn = { data, plots, findings, choose };
  drawAll();
})();
