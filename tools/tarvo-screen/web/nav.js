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

function centre(el) {
  const r = el.getBoundingClientRect();
  return { x: r.left + r.width / 2, y: r.top + r.height / 2 };
}

// The nearest candidate on the side of `direction`, off-axis distance weighing more.
function nearest(from, candidates, { axis, sign }) {
  const c = centre(from);
  const other = axis === "x" ? "y" : "x";
  let best = null;
  let bestScore = Infinity;
  for (const el of candidates) {
    if (el === from) continue;
    const d = centre(el);
    const along = (d[axis] - c[axis]) * sign;
    if (along <= 1) continue;
    const score = along + 3 * Math.abs(d[other] - c[other]);
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
