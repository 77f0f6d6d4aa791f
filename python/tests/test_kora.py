"""The kora Python module against numpy, an independent implementation of the
same file format and of the same metrics."""
import concurrent.futures
import io
import os
import struct
import subprocess

import numpy as np
import pytest

import kora


# ------------------------------------------------------------- kernel table

def test_kernels_lists_the_table_with_kind_names():
    relu = [k for k in kora.kernels() if k.name == "native::ReLU"]
    assert len(relu) == 1
    assert relu[0].outputs == ["Tensor"]
    assert relu[0].inputs == ["Tensor"]
    assert relu[0].has_config
    assert relu[0].defaults == []
    assert repr(relu[0]) == "Kernel('native::ReLU', outputs=[Tensor], inputs=[Tensor])"
    assert [k.name for k in kora.kernels("native::ReL*")] == ["native::ReLU"]
    by_substring = [k.name for k in kora.kernels("relu")]
    assert "native::ReLU" in by_substring
    assert all("relu" in name.lower() for name in by_substring)
    assert kora.kernels("no such kernel") == []


# ---------------------------------------------------------------- kora.run

@pytest.mark.parametrize("dtype", [np.float32, np.float16, np.int8, np.int16, np.int32, np.int64])
def test_run_relu_matches_numpy(dtype):
    x = np.array([[-3, -1, 0], [1, 2, 100]], dtype=dtype)
    y = kora.run("native::ReLU", x)
    assert y.dtype == np.dtype(dtype)
    np.testing.assert_array_equal(y, np.maximum(x, 0))


def test_run_relu_float_specials_bit_for_bit():
    x = np.array([-0.0, np.nan, -np.inf, np.inf, 1e-45, -1e-45], dtype=np.float32)
    y = kora.run("native::ReLU", x)
    # x > 0 ? x : 0: negative zero and NaN give +0.
    assert y.view(np.uint32).tolist() == [0, 0, 0, 0x7F800000, 1, 0]


def test_run_takes_any_layout_and_byte_order():
    base = np.arange(-6, 6, dtype=np.float32).reshape(3, 4)
    np.testing.assert_array_equal(kora.run("native::ReLU", base.T), np.maximum(base.T, 0))
    np.testing.assert_array_equal(kora.run("native::ReLU", base[:, ::2]), np.maximum(base[:, ::2], 0))
    big_endian = base.astype(">f4")
    np.testing.assert_array_equal(kora.run("native::ReLU", big_endian), np.maximum(base, 0))
    # Anything array-like goes where a tensor is expected (numpy's rules pick
    # the dtype: a nested list of ints is int64).
    np.testing.assert_array_equal(kora.run("native::ReLU", [[-1, 2]]), [[0, 2]])


def test_inputs_pass_without_copy_and_outputs_own_their_memory():
    x = np.arange(12, dtype=np.float32).reshape(3, 4)
    t = kora.Tensor(x)
    assert np.shares_memory(t.numpy(), x), "a C-contiguous array is viewed, not copied"
    x[0, 0] = 42
    assert t.numpy()[0, 0] == 42
    assert not np.shares_memory(kora.Tensor(x.T).numpy(), x), "other layouts are copied"
    y = kora.run("native::ReLU", x)
    assert not np.shares_memory(y, x)
    del t, x
    assert y[0, 0] == 42, "the output outlives the input"


def test_run_failures_raise_with_the_libraries_words():
    x = np.zeros(2, dtype=np.float32)
    cases = [
        (("native::ReLU", x, 3), "native::ReLU expects 1 inputs, but got 2"),
        (("native::ReLU",), "native::ReLU expects 1 inputs, but got 0"),
        (("native::Nothing", x), 'no kernel is registered as "native::Nothing"'),
        (("native::ReLU", "abc"),
         "native::ReLU: 1-th parameter fails to convert. Kernel expect type is Tensor, but got a type string"),
    ]
    for args, message in cases:
        with pytest.raises(kora.Error) as error:
            kora.run(*args)
        assert str(error.value) == message
    with pytest.raises(kora.Error) as error:
        kora.run("native::ReLU", x, out_types=["si8"])
    assert str(error.value).startswith("native::ReLU impl function call failure! type mismatch\n")
    with pytest.raises(TypeError, match="numpy dtype complex64 has no kora element type"):
        kora.run("native::ReLU", np.zeros(2, dtype=np.complex64))
    assert issubclass(kora.Error, RuntimeError)


def test_out_types_keep_the_callers_type():
    x = np.array([-1.5, 2.5], dtype=np.float32)
    np.testing.assert_array_equal(kora.run("native::ReLU", x, out_types=[np.float32]), [0, 2.5])
    np.testing.assert_array_equal(kora.run("native::ReLU", x, out_types=[("f32", [2])]), [0, 2.5])
    with pytest.raises(ValueError, match="unknown element type 'f99'"):
        kora.run("native::ReLU", x, out_types=["f99"])


def test_run_from_several_threads():
    arrays = [np.random.default_rng(i).standard_normal(10000).astype(np.float32) for i in range(16)]
    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        results = list(pool.map(lambda a: kora.run("native::ReLU", a), arrays))
    for a, y in zip(arrays, results):
        np.testing.assert_array_equal(y, np.maximum(a, 0))


# -------------------------------------------------------------- kora.trace

def test_trace_captures_the_lines_of_the_calls_inside():
    x = np.array([[-1.5, 0.0, 2.25], [3.0, -0.5, -7.0]], dtype=np.float32)
    with kora.trace([1, 2]) as lines:
        kora.run("native::ReLU", x)
        assert lines == ["fout[1, 2] = relu(fin[1, 2]) // relu(-7) -> 0 "]
        kora.run("native::ReLU", x[:, ::-1])
    assert lines == ["fout[1, 2] = relu(fin[1, 2]) // relu(-7) -> 0 ",
                     "fout[1, 2] = relu(fin[1, 2]) // relu(3) -> 3 "]
    with kora.trace([1]) as inner_rank:
        kora.run("native::ReLU", x)
    assert inner_rank == [], "a trace point of another rank traces nothing"
    with kora.trace(0) as outer:
        with kora.trace([0, 0]) as inner:
            kora.run("native::ReLU", x)
        kora.run("native::ReLU", x[0])
    assert inner == ["fout[0, 0] = relu(fin[0, 0]) // relu(-1.5) -> 0 "]
    assert outer == ["fout[0] = relu(fin[0]) // relu(-1.5) -> 0 "]
    with kora.trace([0, 0]) as lines:
        pass
    kora.run("native::ReLU", x)
    assert lines == [], "the trace point ends with the context"


def test_trace_keeps_results_bit_identical():
    x = np.random.default_rng(3).standard_normal((8, 8)).astype(np.float16)
    plain = kora.run("native::ReLU", x)
    with kora.trace([3, 5]):
        traced = kora.run("native::ReLU", x)
    assert plain.view(np.uint16).tolist() == traced.view(np.uint16).tolist()


# -------------------------------------------------------------- kora.Tensor

def test_tensor_converts_to_and_from_numpy():
    for dtype, name in [(np.float16, "f16"), (np.float32, "f32"), (np.float64, "f64"), (np.int8, "si8"),
                        (np.int16, "si16"), (np.int32, "si32"), (np.int64, "si64"), (np.uint8, "ui8"),
                        (np.uint16, "ui16"), (np.uint32, "ui32"), (np.uint64, "ui64"), (np.bool_, "bool8")]:
        x = (np.arange(6) % 3).astype(dtype).reshape(2, 3)
        t = kora.Tensor(x)
        assert t.element_type == name
        assert t.shape == (2, 3)
        assert t.strides == x.strides
        back = np.asarray(t)
        assert back.dtype == np.dtype(dtype)
        np.testing.assert_array_equal(back, x)
    t = kora.Tensor(np.array([[1.5, -2.0], [0.0, 8.0]], dtype=np.float32))
    assert repr(t) == "Tensor<f32,2x2,8x4>"
    assert str(t) == "[[ 1.5 -2. ]\n [ 0.   8. ]]"
    assert np.asarray(t, dtype=np.float64).dtype == np.float64


# ------------------------------------------------------------- tensor files

@pytest.mark.parametrize("dtype", [np.float16, np.float32, np.float64, np.int8, np.int16, np.int32, np.int64,
                                   np.uint8, np.uint16, np.uint32, np.uint64, np.bool_])
def test_npy_files_interoperate_with_numpy(tmp_path, dtype):
    x = (np.arange(24) * 37 % 11).astype(dtype).reshape(2, 3, 4)
    for order, version in [("C", (1, 0)), ("F", (1, 0)), ("C", (2, 0)), ("F", (3, 0))]:
        path = tmp_path / f"numpy-{order}-{version[0]}.npy"
        with open(path, "wb") as f:
            np.lib.format.write_array(f, np.asarray(x, order=order), version=version)
        got = kora.load(str(path))
        assert got.dtype == x.dtype
        np.testing.assert_array_equal(got, x)
    path = tmp_path / "kora.npy"
    kora.save(str(path), x[:, ::-1])
    again = np.load(path)
    assert again.dtype == x.dtype
    np.testing.assert_array_equal(again, x[:, ::-1])


def test_serialized_form_from_an_independent_writer(tmp_path):
    # Header words (magic, element type, rank, sizes), then the elements.
    path = tmp_path / "bf16.kora"
    path.write_bytes(struct.pack("<5Q", 0xFADE, 0x20005, 2, 1, 2) + struct.pack("<2H", 0x3F80, 0xC040))
    t = kora.load(str(path))
    assert isinstance(t, kora.Tensor), "vbf16 has no numpy dtype"
    assert t.element_type == "vbf16"
    assert str(t) == "[[ 1. -3.]]"
    with pytest.raises(TypeError, match="element type vbf16 has no numpy dtype"):
        t.numpy()
    kora.save(str(tmp_path / "copy.kora"), t)
    assert (tmp_path / "copy.kora").read_bytes() == path.read_bytes()
    with pytest.raises(kora.Error, match="element type vbf16 has no .npy counterpart"):
        kora.save(str(tmp_path / "copy.npy"), t)


def test_bad_files_raise_one_line(tmp_path):
    cases = [
        (b"", "empty file: neither a .npy file nor a serialized tensor"),
        (b"\x93NUMPY\x01\x00\x10\x00{'descr': '<c8'", "truncated: the .npy header needs 16 bytes, the file holds 15"),
        (struct.pack("<3Q", 0xFADE, 0x40003, 99), "corrupt header: rank 99 is above 11"),
    ]
    for data, reason in cases:
        path = tmp_path / "bad.npy"
        path.write_bytes(data)
        with pytest.raises(kora.Error) as error:
            kora.load(str(path))
        assert str(error.value) == f"{path}: {reason}"
    with pytest.raises(ValueError, match="unknown format 'csv'"):
        kora.save(str(tmp_path / "x"), np.zeros(1), format="csv")
    with pytest.raises(kora.Error, match="cannot write: No such file or directory"):
        kora.save(str(tmp_path / "no" / "x.npy"), np.zeros(1))
    kora.save(str(tmp_path / "forced"), np.zeros(2, dtype=np.int8), format="kora")
    assert (tmp_path / "forced").read_bytes()[:8] == struct.pack("<Q", 0xFADE)


# ------------------------------------------------------------------ metrics

def test_metrics_agree_with_numpy_on_random_data():
    rng = np.random.default_rng(11)
    for trial in range(20):
        e = rng.standard_normal(1000).astype(np.float32)
        a = (e + rng.standard_normal(1000).astype(np.float32) * np.float32(10.0 ** -rng.integers(1, 8))).astype(np.float32)
        a[rng.integers(0, 1000)] = e[0] * 3  # one gross mismatch in some trials
        ed, ad = e.astype(np.float64), a.astype(np.float64)
        for rtol, atol in [(1e-5, 1e-8), (1e-3, 0.0), (0.0, 1e-4), (0.5, 0.5)]:
            assert kora.AllClose(e, a, rtol, atol) == np.allclose(ad, ed, rtol=rtol, atol=atol)
        d = ad - ed
        assert kora.RootMeanSquareDeviation(e, a) == pytest.approx(np.sqrt(np.mean(d * d)), rel=1e-12)
        assert kora.MaximumQuantizationNoise(e, a) == np.max(np.abs(d))
        assert kora.SignalQuantizationNoiseRatio(e, a) == pytest.approx(
            10 * np.log10(np.sum(ed * ed) / np.sum(d * d)), rel=1e-12)
        similarity = np.dot(ed, ad) / np.sqrt(np.dot(ed, ed) * np.dot(ad, ad))
        assert 1 - kora.CosineDistance(e, a) == pytest.approx(similarity, rel=1e-13)


def test_metric_edge_cases():
    nan = np.float32(np.nan)
    assert not kora.AllClose([1.0, nan], [1.0, nan])
    assert kora.AllClose([1.0, nan], [1.0, nan], equal_nan=True)
    assert kora.AllIdentical(np.array([1, 2], np.int8), np.array([1, 2], np.int8))
    assert not kora.AllIdentical(np.array([1, 2], np.int8), np.array([1, 2], np.int16))
    assert not kora.AllIdentical(np.array([-0.0], np.float32), np.array([0.0], np.float32))
    assert kora.SignalQuantizationNoiseRatio([1.0], [1.0]) == np.inf
    assert kora.CosineDistance([0.0, 0.0], [0.0, 0.0]) == 0.0
    with pytest.raises(kora.Error, match="shape mismatch: expected 2, actual 3"):
        kora.RootMeanSquareDeviation(np.zeros(2), np.zeros(3))


def test_compare_gives_every_metric_and_the_view():
    e = np.array([[1, 2], [3, 4]], dtype=np.float32)
    a = np.array([[1, 2.5], [3, 3.75]], dtype=np.float32)
    c = kora.compare(e, a)
    assert not c and not c.all_close and not c.all_identical
    assert (c.elements, c.mismatches) == (4, 2)
    assert c.maximum_quantization_noise == 0.5
    assert c.root_mean_square_deviation == pytest.approx(np.sqrt((0.25 + 0.0625) / 4), rel=1e-15)
    assert c.worst == [((0, 1), 2.0, 2.5, 0.5), ((1, 1), 4.0, 3.75, -0.25)]
    assert str(c).startswith("AllClose                      no: 2 of 4 elements differ beyond rtol 1e-05, atol 1e-08\n")
    assert "worst mismatches (2 of 2):" in c.view()
    assert kora.compare(e, e.astype(np.float16))
    assert kora.compare(e, a, atol=0.5).all_close


# --------------------------------------------------- the command from Python

@pytest.mark.skipif("KORA_CLI" not in os.environ, reason="the kora program's path is not given")
def test_command_line_files_read_by_numpy(tmp_path):
    x = np.array([[-1.5, 0.0], [2.25, -7.0]], dtype=np.float32)
    np.save(tmp_path / "in.npy", x)
    done = subprocess.run([os.environ["KORA_CLI"], "run", "native::ReLU", str(tmp_path / "in.npy"),
                           "--trace", "1,0", "-o", str(tmp_path / "out.npy")], capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    assert done.stdout == "fout[1, 0] = relu(fin[1, 0]) // relu(2.25) -> 2.25 \n"
    np.testing.assert_array_equal(np.load(tmp_path / "out.npy"), np.maximum(x, 0))
