#!/usr/bin/python3
"""Writes the model files of the network runtime tests beside this script, with the posteriors numpy
computes for them in double precision from the file contents alone; matrices as text, "rows cols" and
then one row a line. Seeded, so the files change only when this script does. Needs numpy.
"""
import json
import os

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
rng = np.random.default_rng(20240611)


def f32(a):
    """Weights are float32 in the program; round here so both sides start from the same numbers."""
    return np.asarray(a, dtype=np.float32).astype(np.float64)


def rand(*shape, scale=None):
    s = scale if scale is not None else 1.0 / np.sqrt(shape[-1] if len(shape) > 1 else 1)
    return f32(rng.uniform(-1.5 * s, 1.5 * s, size=shape))


def tolist(a):
    """Nested lists of exact float32 decimal forms."""
    return json.loads(json.dumps(np.asarray(a, dtype=np.float32).tolist()))


def sigmoid(x):
    return 1.0 / (1.0 + np.exp(-x))


# Reference layers, in the natural form: a matrix per gate, out x in.

def conv(x, W, b, winlen, stride, pad_left, pad_right, act):
    """x: rows x insize; W: size x winlen x insize."""
    xp = np.vstack([np.zeros((pad_left, x.shape[1])), x, np.zeros((pad_right, x.shape[1]))])
    nout = (pad_left + pad_right - (winlen - x.shape[0])) // stride + 1
    windows = [xp[t * stride: t * stride + winlen] for t in range(nout)]
    return act(np.array([np.einsum('owi,wi->o', W, w) + b for w in windows]))


def scan(x, H, step, reverse):
    """Runs step(x_t, state) -> (output, state) over the rows, from zero state."""
    out, state = np.empty((x.shape[0], H)), (np.zeros(H), np.zeros(H))
    for t in (range(x.shape[0] - 1, -1, -1) if reverse else range(x.shape[0])):
        out[t], state = step(x[t], state)
    return out


def gru(x, g, reverse=False, reset_after=False, residual=False):
    def step(xt, state):
        h = state[0]
        r = sigmoid(g['Wr'] @ xt + g['Ur'] @ h + g['br'])
        z = sigmoid(g['Wz'] @ xt + g['Uz'] @ h + g['bz'])
        n = np.tanh(g['Wn'] @ xt + g['bn'] + (r * (g['Un'] @ h) if reset_after else g['Un'] @ (r * h)))
        h = z * h + (1.0 - z) * n
        return (h + xt if residual else h), (h, None)
    return scan(x, g['Wr'].shape[0], step, reverse)


def lstm(x, g, reverse=False):
    def step(xt, state):
        h, c = state
        f = sigmoid(g['Wf'] @ xt + g['Uf'] @ h + g['bf'] + g['pf'] * c)
        i = sigmoid(g['Wi'] @ xt + g['Ui'] @ h + g['bi'] + g['pi'] * c)
        c = f * c + i * np.tanh(g['Wc'] @ xt + g['Uc'] @ h + g['bc'])
        h = sigmoid(g['Wo'] @ xt + g['Uo'] @ h + g['bo'] + g['po'] * c) * np.tanh(c)
        return h, (h, c)
    return scan(x, g['Wi'].shape[0], step, reverse)


def softmax(x, W, b, temp_weight=1.0, temp_bias=1.0):
    e = np.exp(x @ W.T / temp_weight + b / temp_bias) + 1e-6
    return e / e.sum(axis=1, keepdims=True)


def make_gates(insize, H, keys, peeps=''):
    g = {}
    for k in keys:
        g['W' + k], g['U' + k], g['b' + k] = rand(H, insize), rand(H, H), rand(H, scale=0.5)
    for k in peeps:
        g['p' + k] = rand(H, scale=0.5)
    return g


# Writers. Block orders: GRU reset, update, candidate (Tessel's sW2 holds the candidate's); LSTM cell,
# input, forget, output, and peepholes input, forget, output.

def stack(g, prefix, keys):
    return tolist(np.concatenate([g[prefix + k] for k in keys]))


def tessel_gru(insize, g, mod=False):
    return {"type": "GruMod" if mod else "GRU", "insize": insize, "size": len(g['br']), "activation": "tanh",
            "bias": True, "params": {"iW": stack(g, 'W', 'rzn'), "sW": stack(g, 'U', 'rz'),
                                     "sW2": tolist(g['Un']), "b": stack(g, 'b', 'rzn')}}


def tessel_lstm(insize, g):
    return {"type": "LSTM", "insize": insize, "size": len(g['bi']), "activation": "tanh", "bias": True,
            "peep": True, "params": {"iW": stack(g, 'W', 'cifo'), "sW": stack(g, 'U', 'cifo'),
                                     "b": stack(g, 'b', 'cifo'), "p": stack(g, 'p', 'ifo')}}


def quorlet_weights(gs, keys, peeps=''):
    """Quorlet: the directions of a bidirectional layer interleave block by block; LSTM peepholes
    follow the state weights in "internal"."""
    def blocks(prefix, ks):
        return np.concatenate([np.ravel(g[prefix + k]) for k in ks for g in gs])
    return {"input": tolist(blocks('W', keys)),
            "internal": tolist(np.concatenate([blocks('U', keys)] + ([blocks('p', peeps)] if peeps else []))),
            "bias": tolist(blocks('b', keys))}


def write(name, doc=None, **matrices):
    """The model file name.json, and name_<key>.txt for each matrix."""
    if doc is not None:
        with open(os.path.join(HERE, name + '.json'), 'w') as fh:
            fh.write(json.dumps(doc, separators=(',', ':')) + '\n')
    for key, m in matrices.items():
        with open(os.path.join(HERE, '%s_%s.txt' % (name, key)), 'w') as fh:
            fh.write('%d %d\n' % m.shape + ''.join(' '.join('%.9e' % v for v in row) + '\n' for row in m))


def rotated(a):
    """Tessel keeps the no-base output (the last column of the posteriors) first."""
    return tolist(np.concatenate([a[-1:], a[:-1]]))


# One raw network in both dialects: convolution (stride 2, odd padding), bidirectional GRU,
# reversed LSTM of 12, bidirectional LSTM, GRU, feed-forward elu, softmax of 65.

def dialect_network():
    winlen, stride, pad = 5, 2, (2, 1)
    conv_W = rand(6, winlen, 1, scale=0.8)
    conv_b = rand(6, scale=0.3)
    bgru = [make_gates(6, 5, 'rzn'), make_gates(6, 5, 'rzn')]
    rlstm = make_gates(10, 12, 'ifoc', 'ifo')
    blstm = [make_gates(12, 8, 'ifoc', 'ifo'), make_gates(12, 8, 'ifoc', 'ifo')]
    fgru = make_gates(16, 7, 'rzn')
    ff_W, ff_b = rand(9, 7), rand(9, scale=0.5)
    sm_W, sm_b = rand(65, 9, scale=1.0), rand(65, scale=0.5)

    x = f32(rng.normal(size=(37, 1)))
    y = conv(x, conv_W, conv_b, winlen, stride, pad[0], pad[1], np.tanh)
    y = np.hstack([gru(y, bgru[0]), gru(y, bgru[1], reverse=True)])
    y = lstm(y, rlstm, reverse=True)
    y = np.hstack([lstm(y, blstm[0]), lstm(y, blstm[1], reverse=True)])
    y = gru(y, fgru)
    y = y @ ff_W.T + ff_b
    y = np.where(y < 0, np.exp(y) - 1.0, y)  # elu
    post = softmax(y, sm_W, sm_b)
    post_temp = softmax(y, sm_W, sm_b, temp_weight=0.8, temp_bias=1.25)

    tessel = {
        "type": "serial", "meta": {"feature_function": "raw"},
        "sublayers": [
            {"type": "convolution", "insize": 1, "size": 6, "winlen": winlen, "stride": stride,
             "padding": list(pad), "activation": "tanh",
             "params": {"W": tolist(conv_W), "b": tolist(conv_b)}},
            {"type": "parallel", "sublayers": [
                tessel_gru(6, bgru[0]),
                {"type": "reverse", "sublayer": tessel_gru(6, bgru[1])}]},
            {"type": "reverse", "sublayer": [tessel_lstm(10, rlstm)]},
            {"type": "parallel", "sublayers": [
                tessel_lstm(12, blstm[0]),
                {"type": "reverse", "sublayers": tessel_lstm(12, blstm[1])}]},
            tessel_gru(16, fgru),
            {"type": "feed-forward", "insize": 7, "size": 9, "activation": "elu",
             "params": {"W": tolist(ff_W), "b": tolist(ff_b)}},
            {"type": "softmax_old", "insize": 9, "size": 65,
             "params": {"W": rotated(sm_W), "b": rotated(sm_b)}},
        ]}
    quorlet = {
        "meta": {"feature_function": "raw", "window": [0]},
        "layers": [
            {"type": "input", "name": "in", "size": 1},
            {"type": "convolution", "name": "conv", "size": 6, "insize": 1, "winlen": winlen,
             "stride": stride, "padding": list(pad), "activation": "tanh"}] + [
            {"type": t, "name": n, "size": size} for t, n, size in (
                ("bgru", "bgru", 10), ("rlstm", "rlstm", 12), ("blstm", "blstm", 16), ("gru", "gru", 7),
                ("feedforward_elu", "ff", 9), ("softmax", "out", 65),
                ("multiclass_classification", "mc", 65))],
        "weights": {
            "conv": {"input": tolist(np.ravel(conv_W)), "bias": tolist(conv_b)},
            "bgru": quorlet_weights(bgru, 'rzn'),
            "rlstm": quorlet_weights([rlstm], 'cifo', 'ifo'),
            "blstm": quorlet_weights(blstm, 'cifo', 'ifo'),
            "gru": quorlet_weights([fgru], 'rzn'),
            "ff": {"input": tolist(np.ravel(ff_W)), "bias": tolist(ff_b)},
            "out": {"input": tolist(np.ravel(sm_W)), "bias": tolist(sm_b)},
        }}
    write('dialect_tessel', tessel)
    write('dialect_quorlet', quorlet)
    write('dialect', input=x, expected=post, expected_temp=post_temp)


# GRU forms only the Tessel dialect can express: a residual GRU, a reset-after-product GRU run in
# reverse, both after a convolution, and a softmax of 5 (one-base labels); with a transducer flag.
def gru_variants_network():
    conv_W, conv_b = rand(8, 3, 1, scale=0.8), rand(8, scale=0.3)
    res = make_gates(8, 8, 'rzn')
    mod = make_gates(8, 3, 'rzn')
    sm_W, sm_b = rand(5, 3, scale=1.0), rand(5, scale=0.5)
    x = f32(rng.normal(size=(20, 1)))
    y = conv(x, conv_W, conv_b, 3, 1, 1, 1, np.tanh)
    y = gru(y, res, residual=True)
    y = gru(y, mod, reverse=True, reset_after=True)
    post = softmax(y, sm_W, sm_b)
    doc = {"type": "serial", "meta": {"transducer": True},
           "sublayers": [
               {"type": "convolution", "insize": 1, "size": 8, "winlen": 3, "stride": 1, "padding": [1, 1],
                "activation": "tanh", "params": {"W": tolist(conv_W), "b": tolist(conv_b)}},
               {"type": "residual", "sublayer": tessel_gru(8, res)},
               {"type": "reverse", "sublayer": tessel_gru(8, mod, mod=True)},
               {"type": "softmax", "insize": 3, "size": 5,
                "params": {"W": rotated(sm_W), "b": rotated(sm_b)}}]}
    write('tessel_gru_variants', doc, input=x, expected=post)


# A flip-flop style output: scale * tanh of an affine map, no normalisation; relu before it.
def globalnorm_network():
    conv_W, conv_b = rand(4, 4, 1, scale=0.8), rand(4, scale=0.3)
    ff_W, ff_b = rand(6, 4), rand(6, scale=0.5)
    gn_W, gn_b = rand(40, 6, scale=1.0), rand(40, scale=0.5)
    x = f32(rng.normal(size=(30, 1)))
    y = conv(x, conv_W, conv_b, 4, 3, 2, 1, sigmoid)
    y = np.maximum(y @ ff_W.T + ff_b, 0.0)
    y = 5.0 * np.tanh(y @ gn_W.T + gn_b)
    doc = {"type": "serial",
           "sublayers": [
               {"type": "convolution", "insize": 1, "size": 4, "winlen": 4, "stride": 3, "padding": [2, 1],
                "activation": "logistic", "params": {"W": tolist(conv_W), "b": tolist(conv_b)}},
               {"type": "feed-forward", "insize": 4, "size": 6, "activation": "relu",
                "params": {"W": tolist(ff_W), "b": tolist(ff_b)}},
               {"type": "GlobalNormTwoState", "insize": 6, "size": 40,
                "params": {"W": tolist(gn_W), "b": tolist(gn_b)}}]}
    write('tessel_globalnorm', doc, input=x, expected=y)


if __name__ == '__main__':
    dialect_network()
    gru_variants_network()
    globalnorm_network()
