"""Transducer decoding of posterior rows in numpy, step for step as the program's runner decodes them
(single precision, strict comparisons, first maximum wins), and the bases of a decoded path."""
import numpy as np

from kvx_data import K

TINY = np.float32(1.1754944e-38)


def transducer_decode(post, stay_penalty=1.0):
    """post: rows x (N + 1) float32, stay column last. Returns (states, moves, score) with states[r]
    the state of row r (a stay repeats the previous one) and moves 0 stay, 1 step, 2 skip; or None when
    a row sums to zero."""
    post = np.asarray(post, dtype=np.float32)
    rows, cols = post.shape
    N = cols - 1
    q, s16 = N // 4, N // 16
    trace = np.empty((rows, N), dtype=np.int32)
    states_idx = np.arange(N)
    cur = post[0, :N].copy()
    total = cur.sum(dtype=np.float32)
    if not (total >= TINY and np.isfinite(total)):
        return None
    cur *= np.float32(1.0) / total
    for r in range(1, rows):
        grid = cur.reshape(4, q)                  # grid[m, t] = cur[t + m * N/4]
        m_step = grid.argmax(0)
        v_step = grid[m_step, np.arange(q)]
        src_step = np.arange(q) + m_step * q
        g2 = v_step.reshape(4, s16)               # g2[m, u] = step source u + m * N/16
        m_skip = g2.argmax(0)
        v_skip = g2[m_skip, np.arange(s16)]
        src_skip = src_step[np.arange(s16) + m_skip * s16]
        t = states_idx // 4
        u = states_idx // 16
        use_skip = v_step[t] < v_skip[u]
        src_val = np.where(use_skip, v_skip[u], v_step[t])
        src = np.where(use_skip, src_skip[u], src_step[t])
        stay = np.float32(post[r, N] * np.float32(stay_penalty))
        arrive = src_val * post[r, :N]
        keep = cur * stay
        take = arrive > keep
        cur = np.where(take, arrive, keep).astype(np.float32)
        trace[r] = np.where(take, src, -1)
        total = cur.sum(dtype=np.float32)
        if not (total >= TINY and np.isfinite(total)):
            return None
        cur *= np.float32(1.0) / total
    best = int(cur.argmax())
    score = float(np.log(cur[best]))
    states = np.empty(rows, dtype=np.int64)
    s = best
    for r in range(rows - 1, 0, -1):
        if trace[r, s] == -1:
            states[r] = -1
        else:
            states[r] = s
            s = int(trace[r, s])
    states[0] = s
    moves = np.empty(rows, dtype=np.int64)
    moves[0] = 1
    for r in range(1, rows):
        if states[r] == -1:
            states[r] = states[r - 1]
            moves[r] = 0
        else:
            b = (states[r - 1] % q) * 4
            moves[r] = 1 if b <= states[r] < b + 4 else 2
    return states, moves, score


def state_bases(state, k=K):
    return "".join("ACGT"[(state >> (2 * (k - 1 - i))) & 3] for i in range(k))


def path_sequence(states, moves, k=K):
    """All bases of the first state, then the newest one (step) or two (skip) of each later state."""
    out = [state_bases(int(states[0]), k)]
    for s, m in zip(states[1:], moves[1:]):
        if m > 0:
            out.append(state_bases(int(s), k)[k - int(m):])
    return "".join(out)
