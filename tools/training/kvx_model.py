"""The raw transducer network in torch, with the layer equations of the program's network runtime,
and its export to a Tessel-encoded model file.

Layers, as the runtime computes them:
  convolution  a window of WINLEN samples every STRIDE samples, zero padding PAD_LEFT and PAD_RIGHT
               (so a chunk of n samples gives ceil(n / 3) rows), then tanh(W x + b)
  GRU          reset-after-product form ("GruMod") with no bias on the state product:
                 r = sigmoid(Wr x + br + Ur h)        z = sigmoid(Wz x + bz + Uz h)
                 n = tanh(Wn x + bn + r * (Un h))     h' = z * h + (1 - z) * n
               each chunk starts from h = 0; a reversed layer reads its rows from last to first
  softmax      p = exp(W h + b) + 1e-6, normalised, with no subtraction of the maximum
torch.nn.GRU computes exactly this form once its state biases are held at zero, which is what
RuntimeGru does.

Column order inside torch is the runtime's: 5-mer states 0..1023, then the stay column. The file
keeps the stay column first (the loader rotates it to the end), so export moves it to the front.
"""
import json

import numpy as np
import torch
import torch.nn.functional as F

from kvx_data import K, NUM_KMERS, STRIDE

WINLEN = 11
PAD_LEFT = 4
PAD_RIGHT = 6  # PAD_LEFT + PAD_RIGHT = WINLEN - 1 keeps rows = ceil(samples / STRIDE)
SOFTMAX_FLOOR = 1e-6


class RuntimeGru(torch.nn.Module):
    def __init__(self, insize, size, reverse):
        super().__init__()
        self.gru = torch.nn.GRU(insize, size)
        self.reverse = reverse
        with torch.no_grad():
            self.gru.bias_hh_l0.zero_()
        self.gru.bias_hh_l0.requires_grad_(False)

    def forward(self, x):  # x: time x batch x features
        if self.reverse:
            return self.gru(x.flip(0))[0].flip(0)
        return self.gru(x)[0]


def _kmer_bases():
    """5 x 1024 table: base (0..3) at position i (oldest first) of each 5-mer."""
    s = torch.arange(NUM_KMERS)
    return torch.stack([(s >> (2 * (K - 1 - i))) & 3 for i in range(K)])


class RawTransducerModel(torch.nn.Module):
    """factorised: the output weights of the 5-mer columns are trained as the sum of one vector per
    (position, base) and a free part. That is still one linear layer, exported as its sum, but every
    5-mer that shares a base at a position shares that vector, so the layer learns from far fewer
    examples than 1024 independent rows would need."""

    def __init__(self, conv_size=32, gru_size=96, gru_layers=3, factorised=False):
        super().__init__()
        self.conv_size, self.gru_size, self.gru_layers = conv_size, gru_size, gru_layers
        self.factorised = factorised
        self.conv = torch.nn.Conv1d(1, conv_size, WINLEN, stride=STRIDE)
        # Alternating directions, the first reversed.
        self.grus = torch.nn.ModuleList(
            RuntimeGru(conv_size if i == 0 else gru_size, gru_size, reverse=(i % 2 == 0)) for i in range(gru_layers))
        self.out = torch.nn.Linear(gru_size, NUM_KMERS + 1)
        if factorised:
            self.base_vectors = torch.nn.Parameter(0.1 * torch.randn(K, 4, gru_size))
            with torch.no_grad():
                self.out.weight.mul_(0.1)
            self.register_buffer("kmer_bases", _kmer_bases(), persistent=False)

    def output_weight(self):
        """The softmax weights as the file holds them (in torch column order)."""
        if not self.factorised:
            return self.out.weight
        shared = sum(self.base_vectors[i][self.kmer_bases[i]] for i in range(K))  # 1024 x H
        return self.out.weight + torch.cat([shared, shared.new_zeros(1, self.gru_size)])

    def logits(self, x):
        """x: batch x samples (normalised signal). Returns time x batch x 1025 logits."""
        h = F.pad(x.unsqueeze(1), (PAD_LEFT, PAD_RIGHT))
        h = torch.tanh(self.conv(h)).permute(2, 0, 1)
        for g in self.grus:
            h = g(h)
        return F.linear(h, self.output_weight(), self.out.bias)

    @staticmethod
    def runtime_posteriors(logits):
        """The runtime's softmax: exp(y) + 1e-6, normalised, with no max subtraction."""
        e = torch.exp(logits) + SOFTMAX_FLOOR
        return e / e.sum(-1, keepdim=True)

    def config(self):
        return {"conv_size": self.conv_size, "gru_size": self.gru_size, "gru_layers": self.gru_layers,
                "factorised": self.factorised}


class F32Array:
    """A float32 array that the writer prints in the shortest decimal form that reads back exactly."""

    def __init__(self, t):
        self.a = np.asarray(t.detach().cpu().numpy() if torch.is_tensor(t) else t, dtype=np.float32)


def _f32(t):
    return F32Array(t)


def _format_f32(x):
    return np.format_float_scientific(x, unique=True, trim="-") if x != 0 else "0"


def _dump(v, out):
    if isinstance(v, F32Array):
        _dump_array(v.a, out)
    elif isinstance(v, dict):
        out.append("{")
        for i, (k, x) in enumerate(v.items()):
            out.append(("," if i else "") + json.dumps(k) + ":")
            _dump(x, out)
        out.append("}")
    elif isinstance(v, list):
        out.append("[")
        for i, x in enumerate(v):
            if i:
                out.append(",")
            _dump(x, out)
        out.append("]")
    else:
        out.append(json.dumps(v))


def _dump_array(a, out):
    if a.ndim == 1:
        out.append("[" + ",".join(_format_f32(x) for x in a) + "]")
    else:
        out.append("[")
        for i in range(a.shape[0]):
            if i:
                out.append(",\n")
            _dump_array(a[i], out)
        out.append("]")


def dumps(doc):
    out = []
    _dump(doc, out)
    return "".join(out) + "\n"


def to_tessel(model, meta_extra=None):
    """The model as a Tessel-encoded document (a dict ready for json.dump)."""
    conv_w = model.conv.weight.detach()[:, 0, :]  # size x winlen; insize is 1
    layers = [{
        "type": "convolution", "insize": 1, "size": model.conv_size, "winlen": WINLEN, "stride": STRIDE,
        "padding": [PAD_LEFT, PAD_RIGHT], "activation": "tanh",
        "params": {"W": _f32(conv_w), "b": _f32(model.conv.bias)},
    }]
    for g in model.grus:
        gru = g.gru
        H = gru.hidden_size
        assert float(gru.bias_hh_l0.detach().abs().max()) == 0.0, "state biases must stay zero"
        w_hh = gru.weight_hh_l0.detach()
        layer = {
            "type": "GruMod", "insize": gru.input_size, "size": H, "activation": "tanh", "bias": True,
            # torch keeps the gate blocks as reset, update, candidate: the file's order.
            "params": {"iW": _f32(gru.weight_ih_l0), "sW": _f32(w_hh[:2 * H]), "sW2": _f32(w_hh[2 * H:]),
                       "b": _f32(gru.bias_ih_l0)},
        }
        layers.append({"type": "reverse", "sublayers": layer} if g.reverse else layer)
    W = model.output_weight().detach()
    b = model.out.bias.detach()
    layers.append({
        "type": "softmax", "insize": model.gru_size, "size": NUM_KMERS + 1,
        # The stay column goes first in the file.
        "params": {"W": _f32(torch.cat([W[NUM_KMERS:], W[:NUM_KMERS]])),
                   "b": _f32(torch.cat([b[NUM_KMERS:], b[:NUM_KMERS]]))},
    })
    meta = {"feature_function": "raw", "transducer": True, "kmer_length": 5, "stride": STRIDE}
    if meta_extra:
        meta.update(meta_extra)
    return {"type": "serial", "meta": meta, "sublayers": layers}


def write_tessel(model, path, meta_extra=None):
    text = dumps(to_tessel(model, meta_extra))
    with open(path, "w") as f:
        f.write(text)


def load_checkpoint_model(path):
    ck = torch.load(path, map_location="cpu")
    model = RawTransducerModel(**ck["config"])
    model.load_state_dict(ck["model"])
    return model, ck


def load_tessel(path):
    """Reads a model file written by write_tessel back into torch (the inverse of to_tessel)."""
    with open(path) as f:
        doc = json.load(f)
    layers = doc["sublayers"]
    conv, grus, soft = layers[0], layers[1:-1], layers[-1]
    inner = [g["sublayers"] if g["type"] == "reverse" else g for g in grus]
    model = RawTransducerModel(conv["size"], inner[0]["size"], len(inner))
    t = lambda a: torch.tensor(np.asarray(a, dtype=np.float32))  # noqa: E731
    with torch.no_grad():
        model.conv.weight.copy_(t(conv["params"]["W"]).reshape(conv["size"], 1, conv["winlen"]))
        model.conv.bias.copy_(t(conv["params"]["b"]))
        for g, layer, wrapper in zip(model.grus, inner, grus):
            assert g.reverse == (wrapper["type"] == "reverse")
            p = layer["params"]
            g.gru.weight_ih_l0.copy_(t(p["iW"]).reshape(g.gru.weight_ih_l0.shape))
            g.gru.weight_hh_l0.copy_(torch.cat([t(p["sW"]).reshape(-1, layer["size"]),
                                                t(p["sW2"]).reshape(-1, layer["size"])]))
            g.gru.bias_ih_l0.copy_(t(p["b"]))
        W, b = t(soft["params"]["W"]), t(soft["params"]["b"])
        model.out.weight.copy_(torch.cat([W[1:], W[:1]]))
        model.out.bias.copy_(torch.cat([b[1:], b[:1]]))
    return model
