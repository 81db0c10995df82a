// Remote-control navigation: the arrow keys move the focus to the nearest reachable element in
// that direction, Enter activates it, Backspace and Escape go back. The focus is the browser's
// own, so a click and a key press end in the same place.

const DIRECTIONS = {
  ArrowRight: { axis: "x", sign: 1 },
  ArrowLeft: { axis: "x", sign: -1 },
  ArrowDown: { axis: "y", sign: 1 },
  ArrowUp: { axis: "y", sign: -1 },
};
const SCROLL_STEP = 160;

function reachable(root) {
  return [...root.querySelectorAll(".focusable")].filter((el) => !el.disabled && el.offsetParent !== null);
}

// How far `r` lies beyond `from` in the direction, edge to edge; negative when it is not beyond.
function gap(from, r, { axis, sign }) {
  if (axis === "x") return sign > 0 ? r.left - from.right : from.left - r.right;
  return sign > 0 ? r.top - from.bottom : from.top - r.bottom;
}

// How much the two boxes share across the direction (a row for Left/Right, a column for Up/Down).
function shared(from, r, { axis }) {
  const [lo, hi] = axis === "x" ? ["top", "bottom"] : ["left", "right"];
  return Math.min(from[hi], r[hi]) - Math.max(from[lo], r[lo]);
}

function crossDistance(from, r, { axis }) {
  const [lo, hi] = axis === "x" ? ["top", "bottom"] : ["left", "right"];
  return Math.max(0, r[lo] - from[hi], from[lo] - r[hi]);
}

// The control the eye finds in that direction: one that lines up with the focused one comes
// first, the nearest of those; only when none lines up, the nearest elsewhere, off-axis distance
// weighing more. An element must lie wholly beyond the focused one's edge.
function nearest(from, candidates, direction) {
  const f = from.getBoundingClientRect();
  let best = null;
  let bestScore = Infinity;
  for (const el of candidates) {
    if (el === from || el.contains(from) || from.contains(el)) continue;
    const r = el.getBoundingClientRect();
    const along = gap(f, r, direction);
    if (along < -1) continue;
    const inLine = shared(f, r, direction) > 0;
    const score = (inLine ? 0 : 1e6) + Math.max(0, along) + 3 * crossDistance(f, r, direction);
    if (score < bestScore) {
      bestScore = score;
      best = el;
    }
  }
  return best;
}

// A focused text block scrolls with Up and Down before the focus leaves it.
function scrolled(el, direction) {
  if (!el.classList.contains("scroll") || direction.axis !== "y") return false;
  const room = direction.sign > 0 ? el.scrollHeight - el.clientHeight - el.scrollTop : el.scrollTop;
  if (room <= 1) return false;
  el.scrollBy({ top: direction.sign * SCROLL_STEP });
  return true;
}

export function focusFirst(root) {
  const preferred = root.querySelector(".focusable[data-autofocus]:not([disabled])");
  const target = preferred || reachable(root)[0];
  if (target) target.focus();
}

// `rootOf()` gives the element whose focusables are in play now, or null when keys do nothing;
// `back()` runs on Backspace and Escape.
export function installRemote({ rootOf, back }) {
  document.addEventListener("keydown", (event) => {
    const root = rootOf();
    if (!root) return;
    const current = root.contains(document.activeElement) ? document.activeElement : null;
    const direction = DIRECTIONS[event.key];
    if (direction) {
      event.preventDefault();
      if (!current) return focusFirst(root);
      if (scrolled(current, direction)) return;
      const next = nearest(current, reachable(root), direction);
      if (next) {
        next.focus();
        next.scrollIntoView({ block: "nearest" });
      }
    } else if (event.key === "Enter") {
      event.preventDefault();
      if (current && !event.repeat) current.click();
    } else if (event.key === "Backspace" || event.key === "Escape") {
      event.preventDefault();
      back();
    }
  });
}
