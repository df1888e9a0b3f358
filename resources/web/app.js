// The gaugepoint dashboard: one page, five views, drawn from the JSON routes of the local server
// or, in an exported file, from the answers stored inline (element #gp-data).
// Everything is built with DOM calls (never innerHTML): project names and titles come from logs.
'use strict';
(function () {
  const exported = document.getElementById('gp-data');
  const STORED = exported ? JSON.parse(exported.textContent) : null;
  const TOKEN = new URLSearchParams(location.search).get('token') || '';
  const SVG = 'http://www.w3.org/2000/svg';
  const PALETTE = ['#2f6fd6', '#e07b39', '#2d9a5b', '#9b59b6', '#c9372c', '#16a2b8', '#b8860b', '#7f8c8d'];

  // Failures are shown and counted on <body>, so a test reading the DOM sees them too.
  const failures = [];
  function fail(message) {
    failures.push(String(message));
    document.body.dataset.errors = String(failures.length);
    const footer = document.getElementById('gp-footer');
    if (footer) footer.replaceChildren(h('span', { class: 'error' }, failures.join(' · ')));
  }
  window.addEventListener('error', (e) => fail(e.message));
  window.addEventListener('unhandledrejection', (e) => fail(e.reason && e.reason.message ? e.reason.message : e.reason));

  const TEXTS = {
    en: {
      overview: 'Overview', usage: 'Usage', sessions: 'Sessions', blocks: 'Blocks', inbox: 'Inbox',
      thisMachine: 'This machine', allMachines: 'All machines (synced sources)', noReading: 'No quota reading yet.',
      official: 'official', estimated: 'estimated', stale: 'stale', used: 'used', left: 'left',
      daily: 'Daily', weekly: 'Weekly', monthly: 'Monthly', days: 'days', allTools: 'all tools',
      byTool: 'by tool', byModel: 'by model', tokens: 'Tokens', cost: 'Cost', period: 'Period', total: 'Total',
      unpriced: 'unpriced', unpricedTokens: 'tokens of models without a price, not in the cost',
      tool: 'Tool', project: 'Project', model: 'Models', time: 'Last activity', title: 'Title', machine: 'Machine',
      filter: 'Filter…', more: 'Load more', of: 'of', start: 'Start', end: 'End', status: 'Status',
      active: 'active', limit: 'Limit', ofLimit: '% of limit', noLimit: 'No block limit set or estimated yet.',
      nothing: 'Nothing yet.', exportedAt: 'Exported', live: 'Live: updates when a scan or a pull changes the stores',
      timeZone: 'Time zone', noInbox: 'The inbox is empty.', other: 'other',
    },
    zh: {
      overview: '概览', usage: '用量', sessions: '会话', blocks: '区块', inbox: '收件箱',
      thisMachine: '本机', allMachines: '所有设备（已同步的来源）', noReading: '还没有额度读数。',
      official: '官方', estimated: '估算', stale: '已过时', used: '已用', left: '剩余',
      daily: '每日', weekly: '每周', monthly: '每月', days: '天', allTools: '全部工具',
      byTool: '按工具', byModel: '按模型', tokens: '令牌', cost: '费用', period: '时段', total: '合计',
      unpriced: '未计价', unpricedTokens: '个令牌属于无价格的模型，未计入费用',
      tool: '工具', project: '项目', model: '模型', time: '最后活动', title: '标题', machine: '设备',
      filter: '筛选…', more: '加载更多', of: '/', start: '开始', end: '结束', status: '状态',
      active: '进行中', limit: '上限', ofLimit: '占上限', noLimit: '尚未设置或估算区块上限。',
      nothing: '暂无数据。', exportedAt: '导出于', live: '实时：扫描或拉取改变存储时自动更新',
      timeZone: '时区', noInbox: '收件箱为空。', other: '其他',
    },
  };

  const state = {
    meta: null, lang: 'en', view: 'overview',
    usage: { kind: 'daily', last: '30', provider: '', timezone: '', by: 'tool', metric: 'tokens' },
    sessions: { rows: [], total: 0, filter: '', sort: 'endedAt', descending: true },
  };
  const t = (key) => (TEXTS[state.lang] || TEXTS.en)[key] || key;

  // ---- DOM helpers ----
  function h(tag, attributes, ...children) {
    const element = document.createElement(tag);
    return fill(element, attributes, children);
  }
  function s(tag, attributes, ...children) {
    return fill(document.createElementNS(SVG, tag), attributes, children);
  }
  function fill(element, attributes, children) {
    for (const [name, value] of Object.entries(attributes || {})) {
      if (value === undefined || value === null || value === false) continue;
      if (name.startsWith('on')) element.addEventListener(name.slice(2), value);
      else element.setAttribute(name, value === true ? '' : String(value));
    }
    for (const child of children.flat()) {
      if (child === undefined || child === null || child === false) continue;
      element.append(child instanceof Node ? child : document.createTextNode(String(child)));
    }
    return element;
  }
  function select(value, options, onchange) {
    return h('select', { onchange: (e) => onchange(e.target.value) },
      options.map(([v, label]) => h('option', { value: v, selected: v === value }, label)));
  }
  const integer = new Intl.NumberFormat('en-US');
  const tokensText = (n) => integer.format(n);
  const usdText = (n) => '$' + Number(n).toFixed(2);
  // A cost is never shown as $0 for what has no price: no cost at all reads "unpriced", and a cost
  // that leaves tokens out carries a * with their count in its title.
  function costCell(cost, unpricedTokens) {
    const unpriced = Number(unpricedTokens || 0);
    if (cost === null || cost === undefined) {
      return h('td', { class: 'number unpriced', title: unpriced ? integer.format(unpriced) + ' ' + t('unpricedTokens') : '' }, t('unpriced'));
    }
    if (!unpriced) return h('td', { class: 'number', 'data-cost': cost }, usdText(cost));
    return h('td', { class: 'number', 'data-cost': cost, title: integer.format(unpriced) + ' ' + t('unpricedTokens') },
      usdText(cost), h('span', { class: 'unpriced' }, '*'));
  }
  const localTime = (iso) => (iso ? new Date(iso).toLocaleString(state.lang === 'zh' ? 'zh-CN' : 'en-GB') : '-');

  // ---- data ----
  // The key of an answer: route, then the parameters by name, encoded as the server's export does.
  function requestKey(route, parameters) {
    const names = Object.keys(parameters).filter((n) => parameters[n] !== '' && parameters[n] !== undefined).sort();
    if (!names.length) return route;
    return route + '?' + names.map((n) => encodeURIComponent(n) + '=' + encodeURIComponent(parameters[n])).join('&');
  }
  async function api(route, parameters = {}) {
    const key = requestKey(route, parameters);
    if (STORED) {
      if (key in STORED) return STORED[key];
      throw new Error('not in this exported file: ' + key);
    }
    const response = await fetch(key + (key.includes('?') ? '&' : '?') + 'token=' + encodeURIComponent(TOKEN),
      { cache: 'no-store' });
    if (!response.ok) throw new Error(key + ': ' + response.status + ' ' + (await response.text()).trim());
    return response.json();
  }

  // ---- overview ----
  function windowView(w) {
    const percent = Math.max(0, Math.min(100, w.usedPercent));
    const fillBar = h('div', { class: percent >= 90 ? 'full' : percent >= 70 ? 'high' : '' });
    fillBar.style.width = percent + '%';
    return h('div', { class: 'window', 'data-window': w.id, 'data-used-percent': w.usedPercent },
      h('div', { class: 'label' }, h('span', {}, w.detailLabel || w.label, ' ',
        h('span', { class: 'mark ' + w.reading }, t(w.reading) || w.reading)),
        h('span', {}, w.usedText + ' ' + t('used') + ' · ' + w.remainingText + ' ' + t('left'))),
      h('div', { class: 'bar' }, fillBar),
      h('div', { class: 'muted' }, w.resetSummaryText, w.paceText ? ' · ' + w.paceText : ''));
  }
  function providerCard(p) {
    return h('div', { class: 'card', 'data-provider': p.id },
      h('h3', {}, p.displayName, p.stale ? h('span', { class: 'mark stale' }, t('stale'), p.ageText ? ' · ' + p.ageText : '') : null),
      p.windows.length ? p.windows.map(windowView) : h('div', { class: 'muted' }, p.status),
      p.creditsText ? h('div', {}, p.creditsText) : null,
      p.usageText ? h('div', { class: 'muted' }, p.usageText) : null);
  }
  async function overview() {
    const [local, sources] = await Promise.all([
      api('/api/widget', { from: 'local', lang: state.lang === 'zh' ? 'zh-Hans' : 'en' }),
      api('/api/widget', { from: 'sources', lang: state.lang === 'zh' ? 'zh-Hans' : 'en' })]);
    const section = (title, view, id) => [h('h2', {}, title),
      view.providers.length ? h('div', { class: 'cards', id }, view.providers.map(providerCard))
        : h('p', { class: 'muted' }, t('noReading'))];
    return [section(t('thisMachine'), local, 'gp-local'), section(t('allMachines'), sources, 'gp-sources')];
  }

  // ---- usage ----
  // Stacked bars: one per period, a segment per series; `value(series, row)` gives a height.
  function stackedChart(periods, series, value) {
    const width = 960, height = 260, left = 64, bottom = 40, top = 10;
    const totals = periods.map((p) => series.reduce((sum, one) => sum + value(one, p), 0));
    const highest = Math.max(1e-9, ...totals);
    const slot = (width - left - 10) / Math.max(1, periods.length);
    const chart = s('svg', { class: 'chart', viewBox: `0 0 ${width} ${height}`, role: 'img' });
    const scale = (v) => (v / highest) * (height - top - bottom);
    for (const fraction of [0, 0.5, 1]) {
      const y = height - bottom - fraction * (height - top - bottom);
      chart.append(s('line', { x1: left, x2: width - 10, y1: y, y2: y, stroke: '#e3e6ea' }),
        s('text', { x: left - 6, y: y + 3, 'text-anchor': 'end' }, state.usage.metric === 'cost'
          ? usdText(highest * fraction) : tokensText(Math.round(highest * fraction))));
    }
    periods.forEach((p, i) => {
      let y = height - bottom;
      series.forEach((one, k) => {
        const v = value(one, p);
        if (v <= 0) return;
        const barHeight = scale(v);
        y -= barHeight;
        chart.append(s('rect', { x: left + i * slot + 1, y, width: Math.max(1, slot - 2), height: barHeight,
          fill: PALETTE[k % PALETTE.length] }, s('title', {}, `${p.label} · ${one.name}: ` +
          (state.usage.metric === 'cost' ? usdText(v) : tokensText(v)))));
      });
      if (periods.length <= 31 || i % Math.ceil(periods.length / 31) === 0) {
        chart.append(s('text', { x: left + i * slot + slot / 2, y: height - bottom + 14, 'text-anchor': 'middle' },
          p.label.slice(5)));
      }
    });
    return chart;
  }
  function legend(series) {
    return h('div', { class: 'legend' }, series.map((one, k) => {
      const item = h('span', {}, one.name);
      item.style.setProperty('--swatch', PALETTE[k % PALETTE.length]);
      return item;
    }));
  }
  const periodLabel = (row) => row.date || row.week || row.month;
  function usageTable(report, kind) {
    const rows = report[kind];
    return h('table', { id: 'gp-usage-table' },
      h('thead', {}, h('tr', {}, h('th', {}, t('period')), h('th', {}, t('model')),
        h('th', { class: 'number' }, t('tokens')), h('th', { class: 'number' }, t('cost')))),
      h('tbody', {}, rows.map((row) => h('tr', { 'data-period': periodLabel(row) },
        h('td', {}, periodLabel(row)), h('td', { class: 'wrap' }, row.modelsUsed.join(', ')),
        h('td', { class: 'number', 'data-tokens': row.totalTokens }, tokensText(row.totalTokens)),
        costCell(row.totalCost, row.unpricedTokens))),
      h('tr', { class: 'total', id: 'gp-usage-total' }, h('td', {}, t('total')), h('td', {}),
        h('td', { class: 'number', 'data-tokens': report.totals.totalTokens }, tokensText(report.totals.totalTokens)),
        costCell(report.totals.totalCost, report.totals.unpricedTokens))));
  }
  async function usage() {
    const u = state.usage;
    const base = { kind: u.kind, last: u.last, timezone: STORED ? '' : u.timezone };
    const report = await api('/api/report', Object.assign({ provider: u.provider }, base));
    const rows = report[u.kind];
    const metric = (x) => (u.metric === 'cost' ? x.totalCost ?? x.cost : x.totalTokens);
    const periods = rows.map((row) => ({ label: periodLabel(row), row }));
    let series;
    if (u.by === 'tool') {
      const tools = u.provider ? [u.provider] : state.meta.providers;
      const reports = await Promise.all(tools.map((p) => api('/api/report', Object.assign({}, base, { provider: p }))));
      series = tools.map((name, k) => {
        const byPeriod = new Map(reports[k][u.kind].map((row) => [periodLabel(row), metric(row)]));
        return { name, value: (p) => byPeriod.get(p.label) || 0 };
      });
    } else {
      const names = [...new Set(rows.flatMap((row) => row.modelBreakdowns.map((m) => m.modelName)))];
      series = names.map((name) => ({ name, value: (p) => {
        const found = p.row.modelBreakdowns.find((m) => m.modelName === name);
        return found ? (u.metric === 'cost' ? found.cost
          : found.inputTokens + found.outputTokens + found.cacheCreationTokens + found.cacheReadTokens) : 0;
      } }));
    }
    const set = (name) => (value) => { u[name] = value; render(); };
    const zones = [...new Set([state.meta.timeZone, 'UTC', Intl.DateTimeFormat().resolvedOptions().timeZone])];
    return [
      h('div', { class: 'controls' },
        select(u.kind, [['daily', t('daily')], ['weekly', t('weekly')], ['monthly', t('monthly')]], set('kind')),
        select(u.last, ['30', '90', '365'].map((d) => [d, d + ' ' + t('days')]), set('last')),
        select(u.provider, [['', t('allTools')], ...state.meta.providers.map((p) => [p, p])], set('provider')),
        select(u.by, [['tool', t('byTool')], ['model', t('byModel')]], set('by')),
        select(u.metric, [['tokens', t('tokens')], ['cost', t('cost')]], set('metric')),
        STORED ? h('span', { class: 'muted' }, t('timeZone') + ': ' + state.meta.timeZone)
          : h('label', {}, t('timeZone') + ' ', select(u.timezone || state.meta.timeZone, zones.map((z) => [z, z]),
            (z) => { u.timezone = z === state.meta.timeZone ? '' : z; render(); }))),
      rows.length ? [stackedChart(periods, series, (one, p) => one.value(p)), legend(series)] : null,
      usageTable(report, u.kind)];
  }

  // ---- sessions ----
  const SESSION_COLUMNS = [
    ['provider', 'tool', (r) => r.provider], ['projectPath', 'project', (r) => r.projectPath || ''],
    ['title', 'title', (r) => r.title], ['models', 'model', (r) => r.models.join(', ')],
    ['sourceName', 'machine', (r) => r.sourceName], ['endedAt', 'time', (r) => r.endedAt || r.startedAt || ''],
    ['totalTokens', 'tokens', (r) => r.totalTokens], ['costUSD', 'cost', (r) => r.costUSD ?? -1],
  ];
  async function loadSessions(more) {
    const page = await api('/api/sessions', { offset: String(more ? state.sessions.rows.length : 0), limit: '500' });
    state.sessions.rows = more ? state.sessions.rows.concat(page.sessions) : page.sessions;
    state.sessions.total = page.total;
  }
  function sessionsTable() {
    const ss = state.sessions;
    const [, , key] = SESSION_COLUMNS.find(([id]) => id === ss.sort);
    const needle = ss.filter.toLowerCase();
    const rows = ss.rows.filter((r) => !needle || [r.provider, r.projectPath, r.title, r.models.join(' '), r.sourceName]
      .some((v) => (v || '').toLowerCase().includes(needle)));
    rows.sort((a, b) => { const x = key(a), y = key(b); return (x < y ? -1 : x > y ? 1 : 0) * (ss.descending ? -1 : 1); });
    const numeric = new Set(['totalTokens', 'costUSD']);
    return h('table', { id: 'gp-sessions-table' },
      h('thead', {}, h('tr', {}, SESSION_COLUMNS.map(([id, label]) => h('th', {
        class: 'sortable' + (numeric.has(id) ? ' number' : ''),
        onclick: () => { ss.descending = ss.sort === id ? !ss.descending : true; ss.sort = id; render(); },
      }, t(label), ss.sort === id ? (ss.descending ? ' ▾' : ' ▴') : '')))),
      h('tbody', {}, rows.map((r) => h('tr', { 'data-session': r.id },
        h('td', {}, r.provider), h('td', { class: 'wrap' }, r.projectPath || '-'), h('td', { class: 'wrap' }, r.title),
        h('td', {}, r.models.join(', ')), h('td', {}, r.sourceName), h('td', {}, localTime(r.endedAt || r.startedAt)),
        h('td', { class: 'number' }, tokensText(r.totalTokens)),
        h('td', { class: 'number' }, r.costUSD === undefined ? '-' : usdText(r.costUSD))))));
  }
  async function sessions() {
    if (!state.sessions.loaded) { await loadSessions(false); state.sessions.loaded = true; }
    const ss = state.sessions;
    const filter = h('input', { type: 'search', placeholder: t('filter'), value: ss.filter });
    const table = h('div', {}, sessionsTable());
    filter.addEventListener('input', () => { ss.filter = filter.value; table.replaceChildren(sessionsTable()); });
    return [h('div', { class: 'controls' }, filter,
      h('span', { class: 'muted', id: 'gp-sessions-count' }, `${ss.rows.length} ${t('of')} ${ss.total}`),
      !STORED && ss.rows.length < ss.total
        ? h('button', { onclick: async () => { await loadSessions(true); render(); } }, t('more')) : null),
      table];
  }

  // ---- blocks ----
  async function blocks() {
    const report = await api('/api/report', { kind: 'blocks', last: '30' });
    const limit = state.meta.claudeBlockLimit;
    const shown = report.blocks.filter((b) => !b.isGap);
    if (!shown.length) return h('p', { class: 'muted' }, t('nothing'));
    const width = 960, height = 200, left = 64, bottom = 30, top = 10;
    const first = Date.parse(shown[0].startTime), last = Date.parse(shown[shown.length - 1].endTime);
    const highest = Math.max(limit || 0, ...shown.map((b) => b.totalTokens)) * 1.05;
    const x = (iso) => left + ((Date.parse(iso) - first) / Math.max(1, last - first)) * (width - left - 10);
    const y = (tokens) => height - bottom - (tokens / highest) * (height - top - bottom);
    const chart = s('svg', { class: 'chart', viewBox: `0 0 ${width} ${height}`, id: 'gp-blocks-chart' });
    chart.append(s('line', { x1: left, x2: width - 10, y1: height - bottom, y2: height - bottom, stroke: '#ccd' }),
      s('text', { x: left - 6, y: top + 8, 'text-anchor': 'end' }, tokensText(Math.round(highest))));
    for (let tick = 0; tick <= 6; ++tick) {  // days along the time axis
      const at = new Date(first + (tick / 6) * (last - first)).toISOString();
      const anchor = tick === 0 ? 'start' : tick === 6 ? 'end' : 'middle';
      chart.append(s('text', { x: x(at), y: height - bottom + 14, 'text-anchor': anchor }, at.slice(5, 10)));
    }
    for (const b of shown) {
      chart.append(s('rect', { x: x(b.startTime), y: y(b.totalTokens), width: Math.max(2, x(b.endTime) - x(b.startTime) - 1),
        height: height - bottom - y(b.totalTokens), fill: b.isActive ? '#e07b39' : '#2f6fd6' },
      s('title', {}, `${localTime(b.startTime)} · ${tokensText(b.totalTokens)} · ${b.costUSD == null ? t('unpriced') : usdText(b.costUSD)}`)));
    }
    if (limit) {
      chart.append(s('line', { x1: left, x2: width - 10, y1: y(limit), y2: y(limit), stroke: '#c9372c', 'stroke-dasharray': '4 3' }),
        s('text', { x: left - 6, y: y(limit) + 3, 'text-anchor': 'end' }, tokensText(limit)));
    }
    const percent = (b) => (limit ? (100 * b.totalTokens / limit).toFixed(1) + '%' : '-');
    return [chart, h('p', { class: 'muted' }, limit ? t('limit') + ': ' + tokensText(limit) : t('noLimit')),
      h('table', { id: 'gp-blocks-table' },
        h('thead', {}, h('tr', {}, [t('start'), t('end'), t('status'), t('tokens'), t('cost'), t('ofLimit')]
          .map((label, i) => h('th', { class: i >= 3 ? 'number' : '' }, label)))),
        h('tbody', {}, shown.slice().reverse().map((b) => h('tr', {},
          h('td', {}, localTime(b.startTime)), h('td', {}, localTime(b.actualEndTime || b.endTime)),
          h('td', {}, b.isActive ? t('active') : ''), h('td', { class: 'number' }, tokensText(b.totalTokens)),
          costCell(b.costUSD, b.unpricedTokens), h('td', { class: 'number' }, percent(b))))))];
  }

  // ---- inbox ----
  async function inbox() {
    const answer = await api('/api/inbox', { limit: '100' });
    if (!answer.entries.length) return h('p', { class: 'muted' }, t('noInbox'));
    return h('div', { class: 'cards' }, answer.entries.map((e) => h('div', { class: 'card' },
      h('h3', {}, e.title, e.level ? h('span', { class: 'mark' }, e.level) : null),
      e.subtitle ? h('div', { class: 'muted' }, e.subtitle) : null, h('div', {}, e.body),
      h('div', { class: 'muted' }, localTime(e.createdAt), e.provider ? ' · ' + e.provider : '',
        e.sourceName ? ' · ' + e.sourceName : ''))));
  }

  // ---- frame ----
  const VIEWS = { overview, usage, sessions, blocks, inbox };
  let rendering = 0;
  async function render() {
    const ticket = ++rendering;
    document.documentElement.lang = state.lang === 'zh' ? 'zh-Hans' : 'en';
    document.getElementById('gp-nav').replaceChildren(...Object.keys(VIEWS).map((name) =>
      h('a', { href: '#' + name, class: name === state.view ? 'current' : '' }, t(name))));
    document.getElementById('gp-language').replaceChildren(...[['en', 'EN'], ['zh', '中文']].map(([code, label]) =>
      h('button', { class: state.lang === code ? 'current' : '', onclick: () => { state.lang = code; render(); } }, label)));
    try {
      const content = await VIEWS[state.view]();
      if (ticket !== rendering) return;  // a newer render took over
      document.getElementById('gp-view').replaceChildren(...[content].flat(2).filter(Boolean));
      document.body.dataset.view = state.view;
      document.body.dataset.ready = String(ticket);
    } catch (error) {
      fail(error.message || error);
    }
    if (!failures.length) {
      document.getElementById('gp-footer').replaceChildren(STORED
        ? t('exportedAt') + ' ' + localTime(state.meta.now) : t('live'));
    }
  }
  function viewFromHash() {
    const name = location.hash.replace('#', '');
    state.view = name in VIEWS ? name : 'overview';
  }
  async function start() {
    state.meta = await api('/api/meta');
    state.lang = state.meta.language.startsWith('zh') ? 'zh' : 'en';
    viewFromHash();
    window.addEventListener('hashchange', () => { viewFromHash(); render(); });
    await render();
    // The stream opens a moment after the first draw: a renderer that waits for the network to
    // go quiet (a headless browser printing the page) is then not held by a stream that never ends.
    if (!STORED && window.EventSource) setTimeout(follow, 3000);
  }
  function follow() {
    const events = new EventSource('/events?token=' + encodeURIComponent(TOKEN));
    events.addEventListener('change', async () => {
      state.meta = await api('/api/meta');
      state.sessions.loaded = false;
      render();
    });
  }
  start().catch((error) => fail(error.message || error));
})();
