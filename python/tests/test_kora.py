"""The kora Python module against numpy, an independent implementation of the
same file format and of the same metrics."""
import concurrent.futures
import struct

import numpy as np
import pytest

import kora

RELU = "native::ReLU"
DTYPES = {np.float16: "f16", np.float32: "f32", np.float64: "f64", np.int8: "si8", np.int16: "si16", np.int32: "si32",
          np.int64: "si64", np.uint8: "ui8", np.uint16: "ui16", np.uint32: "ui32", np.uint64: "ui64", np.bool_: "bool8"}


def test_kernels_lists_the_table_with_kind_names():
    relu = [k for k in kora.kernels() if k.name == RELU]
    assert [(k.outputs, k.inputs, k.has_config, k.defaults) for k in relu] == [(["Tensor"], ["Tensor"], True, [])]
    assert repr(relu[0]) == "Kernel('native::ReLU', outputs=[Tensor], inputs=[Tensor])"
    assert [k.name for k in kora.kernels("native::ReL*")] == [RELU]
    assert RELU in [k.name for k in kora.kernels("relu")] and all("relu" in k.name.lower() for k in kora.kernels("relu"))
    assert kora.kernels("no such kernel") == []


def test_run_takes_any_layout_byte_order_and_thread_and_outputs_own_their_memory():
    x = np.array([-0.0, np.nan, -np.inf, np.inf, 1e-45, -1e-45], dtype=np.float32)
    # x > 0 ? x : 0: negative zero and NaN give +0.
    assert kora.run(RELU, x).view(np.uint32).tolist() == [0, 0, 0, 0x7F800000, 1, 0]
    base = np.arange(-6, 6, dtype=np.float32).reshape(3, 4)
    for view in [base.T, base[:, ::2], base.astype(">f4")]:
        np.testing.assert_array_equal(kora.run(RELU, view), np.maximum(view, 0))
    np.testing.assert_array_equal(kora.run(RELU, [[-1, 2]]), [[0, 2]])  # array-like: a nested list of ints is int64
    arrays = [np.random.default_rng(i).standard_normal(10000).astype(np.float32) for i in range(16)]
    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        for a, y in zip(arrays, pool.map(lambda a: kora.run(RELU, a), arrays)):
            np.testing.assert_array_equal(y, np.maximum(a, 0))
    t = kora.Tensor(base)
    assert np.shares_memory(t.numpy(), base), "a C-contiguous array is viewed, not copied"
    assert not np.shares_memory(kora.Tensor(base.T).numpy(), base), "other layouts are copied"
    y = kora.run(RELU, base)
    base[0, 0] = 42
    assert t.numpy()[0, 0] == 42 and y[0, 0] == 0
    del t, base
    assert y[2, 3] == 5, "the output outlives the input"


def test_run_failures_and_out_types():
    x = np.array([-1.5, 2.5], dtype=np.float32)
    cases = [
        ((RELU, x, 3), kora.Error, "native::ReLU expects 1 inputs, but got 2"),
        (("native::Nothing", x), kora.Error, 'no kernel is registered as "native::Nothing"'),
        ((RELU, "abc"), kora.Error,
         "native::ReLU: 1-th parameter fails to convert. Kernel expect type is Tensor, but got a type string"),
        ((RELU, np.zeros(2, dtype=np.complex64)), TypeError, "numpy dtype complex64 has no kora element type"),
    ]
    for args, error_type, message in cases:
        with pytest.raises(error_type) as error:
            kora.run(*args)
        assert str(error.value) == message
    assert issubclass(kora.Error, RuntimeError)
    with pytest.raises(kora.Error, match="^native::ReLU impl function call failure! type mismatch\n"):
        kora.run(RELU, x, out_types=["si8"])
    with pytest.raises(ValueError, match="unknown element type 'f99'"):
        kora.run(RELU, x, out_types=["f99"])
    for out_types in [[np.float32], [("f32", [2])]]:
        np.testing.assert_array_equal(kora.run(RELU, x, out_types=out_types), [0, 2.5])


def test_trace_captures_the_lines_of_the_calls_inside_and_keeps_results():
    x = np.array([[-1.5, 0.0, 2.25], [3.0, -0.5, -7.0]], dtype=np.float32)
    with kora.trace([1, 2]) as lines:
        kora.run(RELU, x)
        kora.run(RELU, x[:, ::-1])
    assert lines == ["fout[1, 2] = relu(fin[1, 2]) // relu(-7) -> 0 ", "fout[1, 2] = relu(fin[1, 2]) // relu(3) -> 3 "]
    with kora.trace(0) as outer:
        with kora.trace([0, 0]) as inner:
            kora.run(RELU, x)
        kora.run(RELU, x[0])
        kora.run(RELU, x)  # a trace point of another rank traces nothing
    assert inner == ["fout[0, 0] = relu(fin[0, 0]) // relu(-1.5) -> 0 "]
    assert outer == ["fout[0] = relu(fin[0]) // relu(-1.5) -> 0 "]
    with kora.trace([0, 0]) as lines:
        pass
    kora.run(RELU, x)
    assert lines == [], "the trace point ends with the context"
    h = np.random.default_rng(3).standard_normal((8, 8)).astype(np.float16)
    plain = kora.run(RELU, h)
    with kora.trace([3, 5]):
        traced = kora.run(RELU, h)
    assert plain.view(np.uint16).tolist() == traced.view(np.uint16).tolist()


@pytest.mark.parametrize("dtype", list(DTYPES))
def test_tensors_and_npy_files_interoperate_with_numpy(tmp_path, dtype):
    x = (np.arange(24) * 37 % 11).astype(dtype).reshape(2, 3, 4)
    t = kora.Tensor(x)
    assert (t.element_type, t.shape, t.strides) == (DTYPES[dtype], (2, 3, 4), x.strides)
    np.testing.assert_array_equal(np.asarray(t), x)
    assert np.asarray(t).dtype == x.dtype
    if DTYPES[dtype][0] in "fs" and dtype != np.float64:
        np.testing.assert_array_equal(kora.run(RELU, x - 5), np.maximum(x - 5, 0))
    for order, version in [("C", (1, 0)), ("F", (1, 0)), ("C", (2, 0)), ("F", (3, 0))]:
        path = tmp_path / f"numpy-{order}-{version[0]}.npy"
        with open(path, "wb") as f:
            np.lib.format.write_array(f, np.asarray(x, order=order), version=version)
        got = kora.load(str(path))
        assert got.dtype == x.dtype
        np.testing.assert_array_equal(got, x)
    kora.save(str(tmp_path / "kora.npy"), x[:, ::-1])
    again = np.load(tmp_path / "kora.npy")
    assert again.dtype == x.dtype
    np.testing.assert_array_equal(again, x[:, ::-1])


def test_serialized_form_and_bad_files(tmp_path):
    # Header words (magic, element type, rank, sizes), then the elements, from an independent writer.
    path = tmp_path / "bf16.kora"
    path.write_bytes(struct.pack("<5Q", 0xFADE, 0x20005, 2, 1, 2) + struct.pack("<2H", 0x3F80, 0xC040))
    t = kora.load(str(path))
    assert (type(t), t.element_type, repr(t), str(t)) == (kora.Tensor, "vbf16", "Tensor<vbf16,1x2,4x2>", "[[ 1. -3.]]")
    with pytest.raises(TypeError, match="element type vbf16 has no numpy dtype"):
        t.numpy()
    kora.save(str(tmp_path / "copy"), t, format="kora")
    assert (tmp_path / "copy").read_bytes() == path.read_bytes()
    path.write_bytes(struct.pack("<3Q", 0xFADE, 0x40003, 99))
    with pytest.raises(kora.Error) as error:
        kora.load(str(path))
    assert str(error.value) == f"{path}: corrupt header: rank 99 is above 11"
    cases = [(tmp_path / "copy.npy", t, {}, kora.Error, "element type vbf16 has no .npy counterpart"),
             (tmp_path / "x", np.zeros(1), {"format": "csv"}, ValueError, "unknown format 'csv'"),
             (tmp_path / "no" / "x.npy", np.zeros(1), {}, kora.Error, "cannot write: No such file or directory")]
    for target, value, options, error_type, message in cases:
        with pytest.raises(error_type, match=message):
            kora.save(str(target), value, **options)


def test_metrics_and_compare():
    e = np.array([[1, 2], [3, 4]], dtype=np.float32)
    a = np.array([[1, 2.5], [3, 3.75]], dtype=np.float32)
    metrics = [kora.CosineDistance(e, a), kora.RootMeanSquareDeviation(e, a), kora.MaximumQuantizationNoise(e, a),
               kora.SignalQuantizationNoiseRatio(e, a), kora.AllClose(e, a), kora.AllIdentical(e, a)]
    c = kora.compare(e, a)
    assert metrics == [c.cosine_distance, c.root_mean_square_deviation, c.maximum_quantization_noise,
                       c.signal_quantization_noise_ratio, False, False]
    assert c.root_mean_square_deviation == pytest.approx(np.sqrt((0.25 + 0.0625) / 4), rel=1e-15)
    assert c.signal_quantization_noise_ratio == pytest.approx(10 * np.log10(30 / 0.3125), rel=1e-14)
    assert (bool(c), c.all_close, c.all_identical, c.elements, c.mismatches, c.maximum_quantization_noise) == \
        (False, False, False, 4, 2, 0.5)
    assert c.worst == [((0, 1), 2.0, 2.5, 0.5), ((1, 1), 4.0, 3.75, -0.25)]
    assert str(c).startswith("AllClose                      no: 2 of 4 elements differ beyond rtol 1e-05, atol 1e-08\n")
    assert "worst mismatches (2 of 2):" in c.view()
    assert kora.compare(e, e.astype(np.float16)) and kora.compare(e, a, atol=0.5).all_close
    assert kora.AllClose([100.0], [99.0], 0.01, 0) and not kora.AllClose([99.0], [100.0], 0.01, 0)
    nan = np.float32(np.nan)
    assert not kora.AllClose([1.0, nan], [1.0, nan]) and kora.AllClose([1.0, nan], [1.0, nan], equal_nan=True)
    assert not kora.AllIdentical(np.array([1, 2], np.int8), np.array([1, 2], np.int16))
    with pytest.raises(kora.Error, match="shape mismatch: expected 2, actual 3"):
        kora.RootMeanSquareDeviation(np.zeros(2), np.zeros(3))
