#!/usr/bin/python3
"""Writes the model-file fixtures of the network runtime tests and the posteriors that numpy computes
for them, in double precision, from the file contents alone.

Run from anywhere with /usr/bin/python3 (needs python3-numpy); it rewrites the files beside it:
  dialect_tessel.json, dialect_quorlet.json    one raw network in both dialects
  dialect_input.txt                             its input samples
  dialect_expected.txt                          its posteriors (no-base column last)
  dialect_expected_temp.txt                     the same with temp_weight 0.8 and temp_bias 1.25
  tessel_gru_variants.json, _input.txt, _expected.txt
                                                residual and reset-after-product GRU layers
  tessel_globalnorm.json, _input.txt, _expected.txt
                                                a flip-flop style output layer
Matrices are text: "rows cols" on the first line, then one row per line.
The random generator is seeded, so the files only change when this script does.
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
    fan_in = shape[-1] if len(shape) > 1 else 1
    s = scale if scale is not None else 1.0 / np.sqrt(fan_in)
    return f32(rng.uniform(-1.5 * s, 1.5 * s, size=shape))


def tolist(a):
    """Nested lists of exact float32 decimal forms."""
    return json.loads(json.dumps(np.asarray(a, dtype=np.float32).tolist()))


def sigmoid(x):
    return 1.0 / (1.0 + np.exp(-x))


# ----------------------------------------------------------------------------------------------
# Reference layers, in the natural form: a matrix per gate, out x in.

def conv(x, W, b, winlen, stride, pad_left, pad_right, act):
    """x: rows x insize; W: size x winlen x insize."""
    rows, insize = x.shape
    xp = np.vstack([np.zeros((pad_left, insize)), x, np.zeros((pad_right, insize))])
    nout = (pad_left + pad_right - (winlen - rows)) // stride + 1
    out = np.empty((nout, W.shape[0]))
    for t in range(nout):
        window = xp[t * stride: t * stride + winlen]
        out[t] = np.einsum('owi,wi->o', W, window) + b
    return act(out)


def gru(x, g, reverse=False, reset_after=False, residual=False):
    """g: dict of Wr, Wz, Wn (H x in), Ur, Uz, Un (H x H), br, bz, bn."""
    H = g['Wr'].shape[0]
    h = np.zeros(H)
    out = np.empty((x.shape[0], H))
    order = range(x.shape[0] - 1, -1, -1) if reverse else range(x.shape[0])
    for t in order:
        xt = x[t]
        r = sigmoid(g['Wr'] @ xt + g['Ur'] @ h + g['br'])
        z = sigmoid(g['Wz'] @ xt + g['Uz'] @ h + g['bz'])
        if reset_after:
            n = np.tanh(g['Wn'] @ xt + g['bn'] + r * (g['Un'] @ h))
        else:
            n = np.tanh(g['Wn'] @ xt + g['bn'] + g['Un'] @ (r * h))
        h = z * h + (1.0 - z) * n
        out[t] = h + xt if residual else h
    return out


def lstm(x, g, reverse=False):
    """g: W?, U?, b? for ? in i f o c, and peepholes pi, pf, po."""
    H = g['Wi'].shape[0]
    h = np.zeros(H)
    c = np.zeros(H)
    out = np.empty((x.shape[0], H))
    order = range(x.shape[0] - 1, -1, -1) if reverse else range(x.shape[0])
    for t in order:
        xt = x[t]
        f = sigmoid(g['Wf'] @ xt + g['Uf'] @ h + g['bf'] + g['pf'] * c)
        i = sigmoid(g['Wi'] @ xt + g['Ui'] @ h + g['bi'] + g['pi'] * c)
        cand = np.tanh(g['Wc'] @ xt + g['Uc'] @ h + g['bc'])
        c = f * c + i * cand
        o = sigmoid(g['Wo'] @ xt + g['Uo'] @ h + g['bo'] + g['po'] * c)
        h = o * np.tanh(c)
        out[t] = h
    return out


def dense(x, W, b, act):
    return act(x @ W.T + b)


def softmax(x, W, b, temp_weight=1.0, temp_bias=1.0):
    e = np.exp(x @ W.T / temp_weight + b / temp_bias) + 1e-6
    return e / e.sum(axis=1, keepdims=True)


def elu(x):
    return np.where(x < 0, np.exp(x) - 1.0, x)


def make_gru(insize, H):
    g = {}
    for k in 'rzn':
        g['W' + k] = rand(H, insize)
        g['U' + k] = rand(H, H)
        g['b' + k] = rand(H, scale=0.5)
    return g


def make_lstm(insize, H):
    g = {}
    for k in 'ifoc':
        g['W' + k] = rand(H, insize)
        g['U' + k] = rand(H, H)
        g['b' + k] = rand(H, scale=0.5)
    for k in 'ifo':
        g['p' + k] = rand(H, scale=0.5)
    return g


# ----------------------------------------------------------------------------------------------
# Writers. Tessel: GRU blocks reset, update, candidate with sW = [reset; update] and sW2 = candidate;
# LSTM blocks cell, input, forget, output and peepholes input, forget, output. Quorlet: the same
# block orders in "input", "internal" (LSTM peepholes behind the state weights) and "bias", with the
# two directions of a bidirectional layer interleaved block by block.

def tessel_gru(insize, g, mod=False):
    return {"type": "GruMod" if mod else "GRU", "insize": insize, "size": len(g['br']), "activation": "tanh",
            "bias": True,
            "params": {"iW": tolist(np.vstack([g['Wr'], g['Wz'], g['Wn']])),
                       "sW": tolist(np.vstack([g['Ur'], g['Uz']])),
                       "sW2": tolist(g['Un']),
                       "b": tolist(np.concatenate([g['br'], g['bz'], g['bn']]))}}


def tessel_lstm(insize, g):
    return {"type": "LSTM", "insize": insize, "size": len(g['bi']), "activation": "tanh", "bias": True,
            "peep": True,
            "params": {"iW": tolist(np.vstack([g['Wc'], g['Wi'], g['Wf'], g['Wo']])),
                       "sW": tolist(np.vstack([g['Uc'], g['Ui'], g['Uf'], g['Uo']])),
                       "b": tolist(np.concatenate([g['bc'], g['bi'], g['bf'], g['bo']])),
                       "p": tolist(np.concatenate([g['pi'], g['pf'], g['po']]))}}


def interleave(blocks_fwd, blocks_bwd):
    out = []
    for f, b in zip(blocks_fwd, blocks_bwd):
        out += [np.ravel(f), np.ravel(b)]
    return np.concatenate(out)


def quorlet_gru_weights(gs):
    keys = 'rzn'
    if len(gs) == 1:
        g = gs[0]
        return {"input": tolist(np.concatenate([np.ravel(g['W' + k]) for k in keys])),
                "internal": tolist(np.concatenate([np.ravel(g['U' + k]) for k in keys])),
                "bias": tolist(np.concatenate([g['b' + k] for k in keys]))}
    f, b = gs
    return {"input": tolist(interleave([f['W' + k] for k in keys], [b['W' + k] for k in keys])),
            "internal": tolist(interleave([f['U' + k] for k in keys], [b['U' + k] for k in keys])),
            "bias": tolist(interleave([f['b' + k] for k in keys], [b['b' + k] for k in keys]))}


def quorlet_lstm_weights(gs):
    keys = 'cifo'
    peeps = 'ifo'
    if len(gs) == 1:
        g = gs[0]
        return {"input": tolist(np.concatenate([np.ravel(g['W' + k]) for k in keys])),
                "internal": tolist(np.concatenate([np.ravel(g['U' + k]) for k in keys] +
                                                  [g['p' + k] for k in peeps])),
                "bias": tolist(np.concatenate([g['b' + k] for k in keys]))}
    f, b = gs
    return {"input": tolist(interleave([f['W' + k] for k in keys], [b['W' + k] for k in keys])),
            "internal": tolist(np.concatenate([interleave([f['U' + k] for k in keys], [b['U' + k] for k in keys]),
                                               interleave([f['p' + k] for k in peeps],
                                                          [b['p' + k] for k in peeps])])),
            "bias": tolist(interleave([f['b' + k] for k in keys], [b['b' + k] for k in keys]))}


def write_json(name, doc):
    with open(os.path.join(HERE, name), 'w') as fh:
        json.dump(doc, fh, separators=(',', ':'))
        fh.write('\n')


def write_matrix(name, m):
    with open(os.path.join(HERE, name), 'w') as fh:
        fh.write('%d %d\n' % m.shape)
        for row in m:
            fh.write(' '.join('%.9e' % v for v in row) + '\n')


# ----------------------------------------------------------------------------------------------
# One raw network in both dialects: convolution (stride 2, odd padding), bidirectional GRU,
# reversed LSTM of 12, bidirectional LSTM, GRU, feed-forward elu, softmax of 65.

def dialect_network():
    winlen, stride, pad = 5, 2, (2, 1)
    conv_W = rand(6, winlen, 1, scale=0.8)
    conv_b = rand(6, scale=0.3)
    bgru = [make_gru(6, 5), make_gru(6, 5)]
    rlstm = make_lstm(10, 12)
    blstm = [make_lstm(12, 8), make_lstm(12, 8)]
    fgru = make_gru(16, 7)
    ff_W, ff_b = rand(9, 7), rand(9, scale=0.5)
    sm_W, sm_b = rand(65, 9, scale=1.0), rand(65, scale=0.5)

    x = f32(rng.normal(size=(37, 1)))
    y = conv(x, conv_W, conv_b, winlen, stride, pad[0], pad[1], np.tanh)
    y = np.hstack([gru(y, bgru[0]), gru(y, bgru[1], reverse=True)])
    y = lstm(y, rlstm, reverse=True)
    y = np.hstack([lstm(y, blstm[0]), lstm(y, blstm[1], reverse=True)])
    y = gru(y, fgru)
    y = dense(y, ff_W, ff_b, elu)
    post = softmax(y, sm_W, sm_b)
    post_temp = softmax(y, sm_W, sm_b, temp_weight=0.8, temp_bias=1.25)

    # Tessel keeps the no-base output (the last column of the posteriors) first.
    sm_W_file = np.vstack([sm_W[-1:], sm_W[:-1]])
    sm_b_file = np.concatenate([sm_b[-1:], sm_b[:-1]])
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
             "params": {"W": tolist(sm_W_file), "b": tolist(sm_b_file)}},
        ]}
    quorlet = {
        "meta": {"feature_function": "raw", "window": [0]},
        "layers": [
            {"type": "input", "name": "in", "size": 1},
            {"type": "convolution", "name": "conv", "size": 6, "insize": 1, "winlen": winlen, "stride": stride,
             "padding": list(pad), "activation": "tanh"},
            {"type": "bgru", "name": "bgru", "size": 10},
            {"type": "rlstm", "name": "rlstm", "size": 12},
            {"type": "blstm", "name": "blstm", "size": 16},
            {"type": "gru", "name": "gru", "size": 7},
            {"type": "feedforward_elu", "name": "ff", "size": 9},
            {"type": "softmax", "name": "out", "size": 65},
            {"type": "multiclass_classification", "name": "mc", "size": 65},
        ],
        "weights": {
            "conv": {"input": tolist(np.ravel(conv_W)), "bias": tolist(conv_b)},
            "bgru": quorlet_gru_weights(bgru),
            "rlstm": quorlet_lstm_weights([rlstm]),
            "blstm": quorlet_lstm_weights(blstm),
            "gru": quorlet_gru_weights([fgru]),
            "ff": {"input": tolist(np.ravel(ff_W)), "bias": tolist(ff_b)},
            "out": {"input": tolist(np.ravel(sm_W)), "bias": tolist(sm_b)},
        }}
    write_json('dialect_tessel.json', tessel)
    write_json('dialect_quorlet.json', quorlet)
    write_matrix('dialect_input.txt', x)
    write_matrix('dialect_expected.txt', post)
    write_matrix('dialect_expected_temp.txt', post_temp)


# GRU forms only the Tessel dialect can express: a residual GRU, a reset-after-product GRU run in
# reverse, both after a convolution, and a softmax of 5 (one-base labels); with a transducer flag.
def gru_variants_network():
    conv_W, conv_b = rand(8, 3, 1, scale=0.8), rand(8, scale=0.3)
    res = make_gru(8, 8)
    mod = make_gru(8, 3)
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
                "params": {"W": tolist(np.vstack([sm_W[-1:], sm_W[:-1]])),
                           "b": tolist(np.concatenate([sm_b[-1:], sm_b[:-1]]))}}]}
    write_json('tessel_gru_variants.json', doc)
    write_matrix('tessel_gru_variants_input.txt', x)
    write_matrix('tessel_gru_variants_expected.txt', post)


# A flip-flop style output: scale * tanh of an affine map, no normalisation; relu before it.
def globalnorm_network():
    conv_W, conv_b = rand(4, 4, 1, scale=0.8), rand(4, scale=0.3)
    ff_W, ff_b = rand(6, 4), rand(6, scale=0.5)
    gn_W, gn_b = rand(40, 6, scale=1.0), rand(40, scale=0.5)
    x = f32(rng.normal(size=(30, 1)))
    y = conv(x, conv_W, conv_b, 4, 3, 2, 1, sigmoid)
    y = dense(y, ff_W, ff_b, lambda v: np.maximum(v, 0.0))
    y = 5.0 * np.tanh(y @ gn_W.T + gn_b)
    doc = {"type": "serial",
           "sublayers": [
               {"type": "convolution", "insize": 1, "size": 4, "winlen": 4, "stride": 3, "padding": [2, 1],
                "activation": "logistic", "params": {"W": tolist(conv_W), "b": tolist(conv_b)}},
               {"type": "feed-forward", "insize": 4, "size": 6, "activation": "relu",
                "params": {"W": tolist(ff_W), "b": tolist(ff_b)}},
               {"type": "GlobalNormTwoState", "insize": 6, "size": 40,
                "params": {"W": tolist(gn_W), "b": tolist(gn_b)}}]}
    write_json('tessel_globalnorm.json', doc)
    write_matrix('tessel_globalnorm_input.txt', x)
    write_matrix('tessel_globalnorm_expected.txt', y)


if __name__ == '__main__':
    dialect_network()
    gru_variants_network()
    globalnorm_network()
