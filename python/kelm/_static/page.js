"use strict";
// Times are ns as doubles. The view is a rectangle of times and neurons; the raster shows it, and
// the rates show its times.
(async () => {
  const element = (id) => document.getElementById(id);
  const about = JSON.parse(element("about").textContent);
  const left = 64, right = 24;  // CSS pixels for the labels of both pictures
  const full = { start: about.start, end: about.end, first: about.low, last: about.high };
  const least = { time: Math.min(1000, full.end - full.start), neurons: 1 };

  async function unpack(id, Type) {
    const text = atob(element(id).textContent);
    const bytes = new Uint8Array(text.length);
    for (let i = 0; i < text.length; i++) bytes[i] = text.charCodeAt(i);
    const stream = new Blob([bytes]).stream().pipeThrough(new DecompressionStream("deflate"));
    return new Type(await new Response(stream).arrayBuffer());
  }

  // --- tables ---

  function addRow(table, cells) {
    const row = element(table).tBodies[0].insertRow();
    for (const cell of cells) row.insertCell().append(...[cell].flat());
  }
  for (const p of about.populations) {
    const swatch = document.createElement("span");
    swatch.className = "swatch";
    swatch.style.background = p.colour;
    addRow("populations", [[swatch, p.name], String(p.first), String(p.size), String(p.spikes),
                           p.rate.toPrecision(4)]);
  }
  for (const row of about.provenance) addRow("provenance", row);

  // --- the spikes ---

  const binned = "columns" in about;
  let times, neurons, cells;
  try {
    if (binned) {
      cells = await unpack("cells", Uint32Array);
    } else {
      const steps = await unpack("steps", about.wide ? Float64Array : Uint32Array);
      neurons = await unpack("neurons", Uint32Array);
      times = new Float64Array(steps.length);
      for (let i = 0, time = about.start; i < steps.length; i++) times[i] = time += steps[i];
    }
  } catch (error) {
    element("state").textContent = "This browser cannot read the spikes: " + error.message;
    throw error;
  }

  function firstAtOrAfter(time) {
    let low = 0, high = times.length;
    while (low < high) {
      const middle = (low + high) >> 1;
      if (times[middle] < time) low = middle + 1; else high = middle;
    }
    return low;
  }

  // --- the raster ---

  const canvas = element("raster");
  // Every picture is an image of pixels, so the canvas lies in memory, not on a graphics card.
  const context = canvas.getContext("2d", { willReadFrequently: true });
  let view = { ...full };
  let in_view = 0;

  // The colour of each shade of each population as a pixel, from white on.
  const shades = about.populations.map((p) => {
    const rgb = [1, 3, 5].map((at) => parseInt(p.colour.slice(at, at + 2), 16));
    return Uint32Array.from({ length: 256 }, (_, shade) => rgb.reduceRight(
      (pixel, c) => (pixel << 8) | Math.round(255 + (c - 255) * shade / 255), 255) >>> 0);
  });
  const white = 0xffffffff;
  function populationOf(neuron) {
    return about.populations.findIndex((p) => neuron >= p.first && neuron < p.first + p.size);
  }

  function draw() {
    const scale = window.devicePixelRatio || 1;
    const width = Math.max(Math.round(canvas.clientWidth * scale), 1);
    const height = Math.max(Math.round(canvas.clientHeight * scale), 1);
    if (canvas.width !== width) canvas.width = width;
    if (canvas.height !== height) canvas.height = height;
    const margin = Math.round(left * scale);
    const across = Math.max(width - margin - Math.round(right * scale), 1);
    const image = context.createImageData(across, height);
    const pixels = new Uint32Array(image.data.buffer).fill(white);
    in_view = binned ? drawCells(pixels, image) : drawSpikes(pixels, image, scale);
    context.fillStyle = "#fff";
    context.fillRect(0, 0, width, height);
    context.putImageData(image, margin, 0);
    drawLabels(margin, across, height, scale);
    const [size, unit] = unitOf(view.end - view.start);
    const [first, last] = [Math.floor(view.first), Math.ceil(view.last) - 1];
    element("state").textContent =
      `${binned ? "about " : ""}${in_view} of ${about.spikes} spikes in view; ` +
      `${Number((view.start / size).toPrecision(9))} to ` +
      `${Number((view.end / size).toPrecision(9))} ${unit}; neurons ${first} to ${last}` +
      (binned ? `; counted into ${about.columns} times ${about.rows} cells` : "");
  }

  function unitOf(span) {
    for (const [size, unit] of [[1e9, "s"], [1e6, "ms"], [1e3, "us"]]) {
      if (span >= size) return [size, unit];
    }
    return [1, "ns"];
  }

  function drawSpikes(pixels, image, scale) {
    const { width, height } = image;
    const begin = firstAtOrAfter(view.start), end = firstAtOrAfter(view.end);
    const across = width / (view.end - view.start), up = height / (view.last - view.first);
    const dot_width = Math.round(scale * (end - begin < 5000 ? 3 : end - begin < 30000 ? 2 : 1));
    const dot_height = Math.max(dot_width, Math.round(Math.min(up * 0.8, 10 * scale)));
    const [first, last] = [view.first - about.low, view.last - about.low];
    // One pixel value a neuron: a look-up is faster than a search for the population.
    const colours = new Uint32Array(Math.ceil(last) - Math.floor(first)).fill(white);
    for (let i = 0; i < colours.length; i++) {
      const p = populationOf(Math.floor(view.first) + i);
      if (p >= 0) colours[i] = shades[p][255];
    }
    let count = 0;
    for (let i = begin; i < end; i++) {
      const neuron = neurons[i];
      if (neuron + 1 <= first || neuron >= last) continue;
      count++;
      const colour = colours[neuron - Math.floor(first)];
      const x0 = Math.floor((times[i] - view.start) * across);
      const x1 = Math.min(x0 + dot_width, width);
      const middle = height - (neuron + 0.5 - first) * up;
      const y0 = Math.max(Math.floor(middle - dot_height / 2), 0);
      const y1 = Math.min(Math.floor(middle - dot_height / 2) + dot_height, height);
      for (let y = y0; y < y1; y++) {
        for (let x = x0; x < x1; x++) pixels[y * width + x] = colour;
      }
    }
    return count;
  }

  // A cell is in view if its middle is. Of the cells in a pixel the darkest shows.
  function drawCells(pixels, image) {
    const { width, height } = image;
    const { columns, rows } = about;
    const cell_time = (full.end - full.start) / columns;
    const cell_neurons = (full.last - full.first) / rows;
    const range = (low, high, size, count) => [Math.max(Math.ceil(low / size - 0.5), 0),
                                               Math.min(Math.ceil(high / size - 0.5), count)];
    const [c0, c1] = range(view.start - full.start, view.end - full.start, cell_time, columns);
    const [r0, r1] = range(view.first - full.first, view.last - full.first, cell_neurons, rows);
    const across = width / (view.end - view.start), up = height / (view.last - view.first);
    let most = 1, count = 0;
    for (let r = r0; r < r1; r++) {
      for (let c = c0; c < c1; c++) {
        const n = cells[r * columns + c];
        count += n;
        if (n > most) most = n;
      }
    }
    const darkness = new Uint8Array(pixels.length);
    for (let r = r0; r < r1; r++) {
      const low = full.first + r * cell_neurons;
      const shade = shades[populationOf(Math.ceil(low))];
      if (shade === undefined) continue;
      const y0 = Math.max(Math.floor(height - (low + cell_neurons - view.first) * up), 0);
      const y1 = Math.min(Math.max(Math.floor(height - (low - view.first) * up), y0 + 1), height);
      for (let c = c0; c < c1; c++) {
        const n = cells[r * columns + c];
        if (n === 0) continue;
        const dark = Math.round(50 + 205 * Math.sqrt(n / most));
        const start = full.start + c * cell_time - view.start;
        const x0 = Math.max(Math.floor(start * across), 0);
        const x1 = Math.min(Math.max(Math.floor((start + cell_time) * across), x0 + 1), width);
        for (let y = y0; y < y1; y++) {
          for (let x = x0; x < x1; x++) {
            if (dark > darkness[y * width + x]) {
              darkness[y * width + x] = dark;
              pixels[y * width + x] = shade[dark];
            }
          }
        }
      }
    }
    return count;
  }

  function drawLabels(margin, width, height, scale) {
    context.font = `${12 * scale}px system-ui, sans-serif`;
    context.textAlign = "right";
    const edge = margin - 6 * scale;
    context.fillStyle = "#666";
    context.textBaseline = "top";
    context.fillText(String(Math.ceil(view.last) - 1), edge, 2 * scale);
    context.textBaseline = "bottom";
    context.fillText(String(Math.floor(view.first)), edge, height - 2 * scale);
    context.textBaseline = "middle";
    for (const p of about.populations) {
      const low = Math.max(p.first, view.first), high = Math.min(p.first + p.size, view.last);
      const middle = height * (view.last - (low + high) / 2) / (view.last - view.first);
      const rows = height * (high - low) / (view.last - view.first);
      if (rows < 14 * scale || middle < 20 * scale || middle > height - 20 * scale) continue;
      context.fillStyle = p.colour;
      context.fillText(p.name, edge, middle, margin - 8 * scale);
    }
    context.strokeStyle = "#bbb";
    context.strokeRect(margin - 0.5, 0.5, width, height - 1);
  }

  // --- the rates ---

  // A rate holds for its whole bin, so the last one is repeated at the end.
  const x = Array.from({ length: about.bins }, (_, i) => (about.start + i * about.bin) / 1e9);
  x.push(about.end / 1e9);
  const chart = new uPlot({
    width: canvas.clientWidth, height: 200, legend: { live: true }, padding: [12, right, 0, 0],
    scales: { x: { time: false } },
    axes: [{ label: "time (s)", size: 36, labelSize: 20 },
           { label: "spikes/s", size: left - 20, labelSize: 20 }],
    series: [{ label: "s" }, ...about.populations.map((p) => ({
      label: p.name, stroke: p.colour, width: 1.2, points: { show: false },
      paths: uPlot.paths.stepped({ align: 1 }) }))],
    hooks: { setScale: [(u, key) => {
      if (key !== "x") return;
      const start = u.scales.x.min * 1e9, end = u.scales.x.max * 1e9;
      const near = (end - start) * 1e-6;  // conversion to seconds and back rounds
      const is_view = Math.abs(start - view.start) <= near && Math.abs(end - view.end) <= near;
      if (!is_view) show({ start, end });
    }] },
  }, [x, ...about.populations.map((p) => [...p.rates, p.rates.at(-1)])], element("rates"));

  // --- the view ---

  /** Shows a rectangle: start and end in ns, the neurons from first up to, not including, last. */
  function show(wanted) {
    const next = { ...view, ...wanted };
    fit(next, "start", "end", full, least.time);
    fit(next, "first", "last", full, least.neurons);
    view = next;
    chart.setScale("x", { min: view.start / 1e9, max: view.end / 1e9 });
    draw();
  }
  // Moves and shortens a range into the whole one, and keeps it as long as `least`.
  function fit(range, low, high, whole, least) {
    const length = Math.min(Math.max(range[high] - range[low], least), whole[high] - whole[low]);
    range[low] = Math.min(Math.max(range[low], whole[low]), whole[high] - length);
    range[high] = range[low] + length;
  }
  function zoom(low, high, factor, at) {
    const middle = view[low] + at * (view[high] - view[low]);
    show({ [low]: middle - (middle - view[low]) * factor,
           [high]: middle + (view[high] - middle) * factor });
  }
  function move(time, neurons) {
    const across = time * (view.end - view.start), up = neurons * (view.last - view.first);
    show({ start: view.start + across, end: view.end + across,
           first: view.first + up, last: view.last + up });
  }

  const actions = {
    "+": () => zoom("start", "end", 0.5, 0.5), "-": () => zoom("start", "end", 2, 0.5),
    "0": () => show(full), ArrowLeft: () => move(-0.2, 0), ArrowRight: () => move(0.2, 0),
    ArrowUp: () => move(0, 0.2), ArrowDown: () => move(0, -0.2) };
  element("in").onclick = actions["+"];
  element("out").onclick = actions["-"];
  element("all").onclick = actions["0"];
  canvas.ondblclick = actions["0"];
  canvas.onkeydown = (event) => {
    if (!(event.key in actions)) return;
    event.preventDefault();
    actions[event.key]();
  };
  canvas.addEventListener("wheel", (event) => {
    event.preventDefault();
    const box = canvas.getBoundingClientRect();
    const factor = Math.exp((event.deltaY || event.deltaX) * 0.002);
    if (event.shiftKey) {
      zoom("first", "last", factor, 1 - (event.clientY - box.top) / box.height);
    } else {
      const at = (event.clientX - box.left - left) / (box.width - left - right);
      zoom("start", "end", factor, Math.min(Math.max(at, 0), 1));
    }
  }, { passive: false });
  canvas.onpointerdown = (event) => canvas.setPointerCapture(event.pointerId);
  canvas.onpointermove = (event) => {
    if (!canvas.hasPointerCapture(event.pointerId)) return;
    move(-event.movementX / (canvas.clientWidth - left - right),
         event.movementY / canvas.clientHeight);
  };
  window.addEventListener("resize", () => {
    chart.setSize({ width: canvas.clientWidth, height: 200 });
    draw();
  });

  show(full);
  /** For scripts: what is in view, and a way to set it. */
  window.kelm = { show, get view() { return { ...view }; },
                  get spikesInView() { return in_view; } };
})();
