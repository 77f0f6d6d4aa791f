// The Python module `kora`: the kernel table, calls by name on numpy arrays,
// trace capture, tensor files and the comparison metrics.
//
//   import kora, numpy as np
//   x = np.array([[-1.5, 0.0, 2.25]], dtype=np.float32)
//   with kora.trace([0, 0]) as lines:
//       y = kora.run("native::ReLU", x)
//   print(lines)   # ['fout[0, 0] = relu(fin[0, 0]) // relu(-1.5) -> 0 ']
//
// Arrays pass without a copy when they are C-contiguous, little-endian and of
// a dtype with an element type (float16 <-> f16, float32, float64, int8 ...
// uint64, bool <-> bool8); other arrays are copied into that form first.
// Results come back as numpy arrays over the kernel's own output buffers;
// element types with no numpy dtype (vbf16, opaque ...) come back as
// kora.Tensor. Failures raise kora.Error with the library's own message.
// As in C++, a kernel that meets an element type it does not serve (ReLU on
// float64, say) stops the process after logging why: that is a broken
// invariant of the library, not bad input it can report.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <fnmatch.h>

#include <cctype>

#include <mutex>

#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include "kora/Kora.h"

namespace py = pybind11;
using namespace kora;

namespace {

struct KoraError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

void check(const Status& s) {
  if (!s.ok()) throw KoraError(s.message());
}

// ------------------------------------------------------------ numpy bridge

ElementType typeOfDtype(const py::dtype& dt) {
  const char kind = dt.kind();
  const auto size = dt.itemsize();
  switch (kind) {
    case 'f': return size == 2 ? ElementType::f16 : size == 4 ? ElementType::f32 : size == 8 ? ElementType::f64 : ElementType::invalid;
    case 'i': return size == 1 ? ElementType::si8 : size == 2 ? ElementType::si16 : size == 4 ? ElementType::si32
                   : size == 8 ? ElementType::si64 : ElementType::invalid;
    case 'u': return size == 1 ? ElementType::ui8 : size == 2 ? ElementType::ui16 : size == 4 ? ElementType::ui32
                   : size == 8 ? ElementType::ui64 : ElementType::invalid;
    case 'b': return size == 1 ? ElementType::bool8 : ElementType::invalid;
    default: return ElementType::invalid;
  }
}

/// The numpy dtype of an element type, or None.
py::object dtypeOf(ElementType type) {
  const char* name = nullptr;
  switch (type) {
    case ElementType::f16: name = "float16"; break;
    case ElementType::f32: name = "float32"; break;
    case ElementType::f64: name = "float64"; break;
    case ElementType::si8: name = "int8"; break;
    case ElementType::si16: name = "int16"; break;
    case ElementType::si32: name = "int32"; break;
    case ElementType::si64: name = "int64"; break;
    case ElementType::ui8: name = "uint8"; break;
    case ElementType::ui16: name = "uint16"; break;
    case ElementType::ui32: name = "uint32"; break;
    case ElementType::ui64: name = "uint64"; break;
    case ElementType::bool8: name = "bool"; break;
    default: return py::none();
  }
  return py::dtype(name);
}

/// The deleter of a storage over a Python object's memory: it keeps one
/// reference to the object until the last tensor viewing it is gone.
struct PythonOwner {
  std::shared_ptr<Storage> storage;
  PyObject* object;
  void operator()(Storage*) {
    storage.reset();
    py::gil_scoped_acquire gil;
    Py_XDECREF(object);
  }
};

/// A tensor over the memory of a numpy array (copied first only when its
/// layout or byte order needs it).
Tensor tensorFromArray(py::array array) {
  py::module_ numpy = py::module_::import("numpy");
  py::dtype dt = array.dtype();
  const ElementType type = typeOfDtype(dt);
  if (type == ElementType::invalid)
    throw py::type_error(fmt::format("numpy dtype {} has no kora element type", std::string(py::str(dt))));
  if (dt.attr("byteorder").cast<std::string>() == ">") {
    dt = py::dtype(dt.attr("newbyteorder")("<"));
    array = numpy.attr("ascontiguousarray")(array, dt);
  } else if (!(array.flags() & py::array::c_style)) {
    array = numpy.attr("ascontiguousarray")(array);
  }
  if (array.ndim() > long(kMaxRank))
    throw py::value_error(fmt::format("a tensor has at most {} dimensions, the array has {}", kMaxRank, array.ndim()));
  std::vector<long> shape(array.shape(), array.shape() + array.ndim());
  const std::vector<long> strides = getStrides(shape, long(byteWidth(type)));
  std::shared_ptr<Storage> external = Storage::createExternal(
      ArrayRef<char>(static_cast<const char*>(array.data()), static_cast<unsigned long>(array.nbytes())));
  Storage* raw = external.get();
  Py_INCREF(array.ptr());
  std::shared_ptr<Storage> storage(raw, PythonOwner{std::move(external), array.ptr()});
  return Tensor(shape, strides, type, 0, std::move(storage));
}

/// A Python-side handle of a kora::Tensor.
struct PyTensor {
  Tensor tensor;
};

/// The tensor's memory as a numpy array (no copy), or the tensor itself
/// wrapped as kora.Tensor when its type has no dtype.
py::object toPython(const Tensor& t) {
  if (!t.isValid()) return py::none();
  py::object dt = dtypeOf(t.elementType());
  if (dt.is_none()) return py::cast(PyTensor{t});
  auto* keep = new Tensor(t);
  py::capsule owner(keep, [](void* p) { delete static_cast<Tensor*>(p); });
  std::vector<py::ssize_t> shape(t.shape().begin(), t.shape().end()), strides(t.strides().begin(), t.strides().end());
  char* data = t.storage()->data() ? t.storage()->data() + t.offset() : nullptr;
  if (!data) return py::array(py::dtype::from_args(dt), shape, strides);  // no elements
  return py::array(py::dtype::from_args(dt), shape, strides, data, owner);
}

Tensor toTensor(py::handle value) {
  if (py::isinstance<PyTensor>(value)) return value.cast<PyTensor&>().tensor;
  py::module_ numpy = py::module_::import("numpy");
  return tensorFromArray(numpy.attr("asarray")(value));
}

std::string elementTypeText(py::handle value) {
  if (py::isinstance<py::str>(value)) return value.cast<std::string>();
  py::dtype dt = py::dtype::from_args(py::reinterpret_borrow<py::object>(value));
  const ElementType type = typeOfDtype(dt);
  if (type == ElementType::invalid)
    throw py::type_error(fmt::format("numpy dtype {} has no kora element type", std::string(py::str(dt))));
  return elementTypeName(type);
}

// ----------------------------------------------------- kernel arguments

constexpr uint64_t kKindTensorList = kKindArray + kKindTensor - 0x1000000;

bool isDtypeLike(py::handle value) {
  py::module_ numpy = py::module_::import("numpy");
  return py::isinstance(value, numpy.attr("dtype")) ||
         (py::isinstance<py::type>(value) && PyObject_IsSubclass(value.ptr(), numpy.attr("generic").ptr()) == 1);
}

/// Converts one Python value for a parameter of kind `kind` (0 when the
/// value lies beyond the kernel's inputs): the invocation layer then checks
/// it against the parameter, in its own words.
Argument toArgument(py::handle value, uint64_t kind) {
  py::module_ numpy = py::module_::import("numpy");
  if (value.is_none()) return kind == kKindTensorList ? Argument(std::vector<Tensor>{}) : Argument(Tensor());
  if (py::isinstance<PyTensor>(value) || py::isinstance<py::array>(value)) return Argument(toTensor(value));
  if (py::isinstance(value, numpy.attr("generic"))) {
    if (kind == kKindTensor) return Argument(toTensor(value));
    return toArgument(value.attr("item")(), kind);
  }
  if (py::isinstance<py::bool_>(value)) return Argument(value.cast<bool>());
  if (py::isinstance<py::int_>(value)) {
    if (kind == kKindTensor) return Argument(toTensor(value));
    return Argument(long(value.cast<int64_t>()));
  }
  if (py::isinstance<py::float_>(value)) {
    if (kind == kKindTensor) return Argument(toTensor(value));
    return Argument(value.cast<double>());
  }
  if (py::isinstance<py::str>(value)) return Argument(value.cast<std::string>());
  if (isDtypeLike(value)) return Argument(elementTypeText(value));
  if (py::isinstance<py::list>(value) || py::isinstance<py::tuple>(value)) {
    py::sequence items = py::reinterpret_borrow<py::sequence>(value);
    if (kind == kKindTensor) return Argument(toTensor(value));
    bool tensors = kind == kKindTensorList;
    for (py::handle item : items) tensors = tensors || py::isinstance<py::array>(item) || py::isinstance<PyTensor>(item);
    if (tensors) {
      std::vector<Tensor> list;
      for (py::handle item : items) list.push_back(toTensor(item));
      return Argument(std::move(list));
    }
    std::vector<int64_t> ints;
    std::vector<double> reals;
    bool integral = true;
    for (py::handle item : items) {
      py::object v = py::isinstance(item, numpy.attr("generic")) ? item.attr("item")() : py::reinterpret_borrow<py::object>(item);
      if (py::isinstance<py::int_>(v)) {
        ints.push_back(v.cast<int64_t>());
        reals.push_back(double(ints.back()));
      } else if (py::isinstance<py::float_>(v)) {
        integral = false;
        reals.push_back(v.cast<double>());
      } else {
        throw py::type_error(fmt::format("a list argument holds numbers or arrays, not {}",
                                         std::string(py::str(py::type::of(v)))));
      }
    }
    return integral && kind != kKindArray + uint64_t(ElementType::f32) && kind != kKindArray + uint64_t(ElementType::f64)
               ? Argument(std::move(ints))
               : Argument(std::move(reals));
  }
  if (kind == kKindTensor) return Argument(toTensor(value));
  throw py::type_error(fmt::format("cannot pass a {} to a kernel", std::string(py::str(py::type::of(value)))));
}

/// An output given by the caller: an element type ("f16", np.float16), or a
/// (type, shape) pair for kernels that take their outputs' shape as given.
Tensor outputSpec(py::handle spec) {
  if (spec.is_none()) return Tensor();
  if (py::isinstance<py::tuple>(spec) && py::len(spec) == 2) {
    py::tuple pair = spec.cast<py::tuple>();
    const std::string name = elementTypeText(pair[0]);
    const ElementType type = elementTypeFromName(name);
    if (type == ElementType::invalid) throw py::value_error(fmt::format("unknown element type '{}'", name));
    return Tensor(type, pair[1].cast<std::vector<long>>());
  }
  const std::string name = elementTypeText(spec);
  const ElementType type = elementTypeFromName(name);
  if (type == ElementType::invalid) throw py::value_error(fmt::format("unknown element type '{}'", name));
  return Tensor(type, std::vector<long>{});
}

// ----------------------------------------------------------- trace capture

class LineSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  std::vector<std::string> take() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::move(lines_);
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override { lines_.emplace_back(msg.payload.data(), msg.payload.size()); }
  void flush_() override {}

 private:
  std::vector<std::string> lines_;
};

/// `with kora.trace(coord) as lines:` sets the trace point and collects the
/// trace lines of the calls inside into `lines`; the previous trace point
/// and logger come back on exit. Contexts nest: lines go to the innermost.
class TraceContext {
 public:
  explicit TraceContext(std::vector<long> point) : point_(std::move(point)) {}

  py::list enter() {
    if (entered_) throw py::value_error("a kora.trace context can be entered only once at a time");
    savedPoint_ = Context::get().getTracePoint().vec();
    savedLogger_ = spdlog::default_logger();
    sink_ = std::make_shared<LineSink>();
    auto logger = std::make_shared<spdlog::logger>("kora-python-trace", sink_);
    logger->set_level(spdlog::level::info);
    spdlog::set_default_logger(logger);
    Context::get().setTracePoint(point_);
    entered_ = true;
    active().push_back(this);
    return lines_;
  }

  void exit(py::handle, py::handle, py::handle) {
    if (!entered_) return;
    drain();
    spdlog::set_default_logger(savedLogger_);
    Context::get().setTracePoint(savedPoint_);
    savedLogger_.reset();
    sink_.reset();
    active().erase(std::find(active().begin(), active().end(), this));
    entered_ = false;
  }

  void drain() {
    for (std::string& line : sink_->take()) lines_.append(py::str(line));
  }

  static std::vector<TraceContext*>& active() {
    static std::vector<TraceContext*> stack;
    return stack;
  }

 private:
  std::vector<long> point_;
  std::vector<long> savedPoint_;
  std::shared_ptr<spdlog::logger> savedLogger_;
  std::shared_ptr<LineSink> sink_;
  py::list lines_;
  bool entered_ = false;
};

void drainTraces() {
  for (TraceContext* c : TraceContext::active()) c->drain();
}

// --------------------------------------------------------- module functions

struct KernelInfo {
  std::string name;
  std::vector<std::string> outputs, inputs;
  std::vector<std::string> defaults;  // of the trailing inputs
  bool hasConfig;
};

/// A glob ("native::Re*") when the pattern has wildcards, else a
/// case-insensitive substring, as `kora list` reads it.
bool matches(const std::string& pattern, const char* name) {
  if (pattern.find_first_of("*?[") != std::string::npos) return fnmatch(pattern.c_str(), name, 0) == 0;
  auto lower = [](std::string s) {
    for (char& c : s) c = char(std::tolower(static_cast<unsigned char>(c)));
    return s;
  };
  return lower(name).find(lower(pattern)) != std::string::npos;
}

std::vector<KernelInfo> kernels(const std::optional<std::string>& pattern) {
  std::vector<KernelInfo> list;
  for (const auto& entry : kernelTable().entries) {
    if (pattern && !matches(*pattern, entry->name)) continue;
    KernelInfo info{entry->name, {}, {}, {}, entry->hasConfig()};
    for (unsigned long i = 0; i < entry->numOutputs; ++i) info.outputs.push_back(kindName(entry->outputKinds[i]));
    for (unsigned long i = 0; i < entry->numInputs; ++i) info.inputs.push_back(kindName(entry->inputKinds[i]));
    for (const Argument& a : entry->defaults) info.defaults.push_back(toString(a));
    list.push_back(std::move(info));
  }
  return list;
}

py::object run(const std::string& name, py::args args, py::object outTypes) {
  const KernelEntry* entry = findKernel(name);
  if (!entry) throw KoraError(fmt::format("no kernel is registered as \"{}\"", name));
  std::vector<Argument> inputs;
  for (std::size_t i = 0; i < args.size(); ++i) inputs.push_back(toArgument(args[i], i < entry->numInputs ? entry->inputKinds[i] : 0));
  std::vector<Tensor> outputs;
  if (!outTypes.is_none()) {
    py::sequence specs = outTypes.cast<py::sequence>();
    if (py::len(specs) > entry->numOutputs)
      throw KoraError(fmt::format("{} has {} outputs, but out_types names {}", entry->name, entry->numOutputs, py::len(specs)));
    outputs.resize(entry->numOutputs);
    for (std::size_t i = 0; i < py::len(specs); ++i) outputs[i] = outputSpec(specs[i]);
  }
  Status status;
  {
    py::gil_scoped_release release;
    status = invoke(*entry, outputs, std::move(inputs));
  }
  drainTraces();
  check(status);
  if (outputs.size() == 1) return toPython(outputs[0]);
  py::tuple result(outputs.size());
  for (std::size_t i = 0; i < outputs.size(); ++i) result[i] = toPython(outputs[i]);
  return result;
}

py::object load(const std::string& path) {
  Tensor t;
  check(readTensorFile(t, path));
  return toPython(t);
}

void save(const std::string& path, py::handle value, const std::optional<std::string>& format) {
  TensorFileFormat f = formatForPath(path);
  if (format) {
    if (*format == "npy") f = TensorFileFormat::Npy;
    else if (*format == "kora") f = TensorFileFormat::Serialized;
    else throw py::value_error(fmt::format("unknown format '{}' (npy or kora)", *format));
  }
  check(writeTensorFile(path, toTensor(value), f));
}

struct PyComparison {
  Comparison c;
};

PyComparison compare(py::handle expected, py::handle actual, double rtol, double atol, bool equalNan, long worst) {
  CompareOptions o;
  o.rtol = rtol;
  o.atol = atol;
  o.equalNan = equalNan;
  o.worstCount = worst;
  PyComparison result;
  check(compareTensors(result.c, toTensor(expected), toTensor(actual), o));
  return result;
}

template <class R, class F>
R metric(py::handle expected, py::handle actual, F&& f) {
  R result{};
  const Tensor e = toTensor(expected), a = toTensor(actual);
  check(f(result, e, a));
  return result;
}

std::vector<long> coordinate(py::handle coord) {
  if (py::isinstance<py::int_>(coord)) return {coord.cast<long>()};
  return coord.cast<std::vector<long>>();
}

}  // namespace

PYBIND11_MODULE(kora, m) {
  m.doc() = "libkora: reference tensor kernels, tensor files and comparison metrics.";
  m.attr("__version__") = KORA_VERSION;
  py::register_exception<KoraError>(m, "Error", PyExc_RuntimeError);

  py::class_<PyTensor>(m, "Tensor",
                       "A kora tensor: element type, shape, byte strides over shared memory. Built from any "
                       "array-like (without a copy for C-contiguous arrays); numpy() views its memory.")
      .def(py::init([](py::handle value) { return PyTensor{toTensor(value)}; }), py::arg("array"))
      .def("numpy", [](const PyTensor& t) {
            py::object result = toPython(t.tensor);
            if (py::isinstance<PyTensor>(result))
              throw py::type_error(fmt::format("element type {} has no numpy dtype", elementTypeName(t.tensor.elementType())));
            return result;
          }, "The tensor's memory as a numpy array (shared, not copied).")
      .def("__array__", [](const PyTensor& t, py::object dtype) {
            py::object result = toPython(t.tensor);
            if (py::isinstance<PyTensor>(result))
              throw py::type_error(fmt::format("element type {} has no numpy dtype", elementTypeName(t.tensor.elementType())));
            return dtype.is_none() ? result : result.attr("astype")(dtype);
          }, py::arg("dtype") = py::none())
      .def_property_readonly("element_type", [](const PyTensor& t) { return std::string(elementTypeName(t.tensor.elementType())); })
      .def_property_readonly("shape", [](const PyTensor& t) { return py::tuple(py::cast(t.tensor.shape().vec())); })
      .def_property_readonly("strides", [](const PyTensor& t) { return py::tuple(py::cast(t.tensor.strides().vec())); })
      .def("__repr__", [](const PyTensor& t) { return toString(t.tensor); })
      .def("__str__", [](const PyTensor& t) { return formatValues(t.tensor); });

  py::class_<KernelInfo>(m, "Kernel", "One entry of the kernel table.")
      .def_readonly("name", &KernelInfo::name)
      .def_readonly("outputs", &KernelInfo::outputs, "Kinds of the outputs, by their quoted names.")
      .def_readonly("inputs", &KernelInfo::inputs, "Kinds of the inputs, by their quoted names.")
      .def_readonly("defaults", &KernelInfo::defaults, "Defaults of the trailing inputs that may be omitted.")
      .def_readonly("has_config", &KernelInfo::hasConfig)
      .def("__repr__", [](const KernelInfo& k) {
        return fmt::format("Kernel('{}', outputs=[{}], inputs=[{}])", k.name, fmt::join(k.outputs, ", "), fmt::join(k.inputs, ", "));
      });

  m.def("kernels", &kernels, py::arg("pattern") = py::none(),
        "The kernel table in registration order; a pattern selects names by glob or substring.");
  m.def("run", &run, py::arg("name"), py::arg("out_types") = py::none(),
        "run(name, *args, out_types=None): calls a kernel by name. Arguments go by position in the kernel's "
        "order: arrays (or kora.Tensor, or None for an absent tensor), numbers, lists and strings. "
        "out_types gives the outputs' element types (or (type, shape) pairs) where the kernel takes them "
        "from the caller. Returns the output, or a tuple of outputs; raises kora.Error on failure.");

  py::class_<TraceContext>(m, "trace",
                           "with kora.trace(coord) as lines: ... collects the trace lines of the kernel calls "
                           "inside, for the output element at coord, as a list of strings.")
      .def(py::init([](py::handle coord) { return TraceContext(coordinate(coord)); }), py::arg("coord"))
      .def("__enter__", &TraceContext::enter)
      .def("__exit__", &TraceContext::exit);

  m.def("load", &load, py::arg("path"),
        "Reads a .npy file or a serialized tensor (known by its content): a numpy array, or kora.Tensor for "
        "element types with no dtype.");
  m.def("save", &save, py::arg("path"), py::arg("value"), py::arg("format") = py::none(),
        "Writes an array or kora.Tensor as .npy, or in the serialized form for names ending in .kora "
        "(format='npy' or 'kora' overrides); all or nothing.");

  py::class_<PyComparison>(m, "Comparison", "Every metric of one comparison, and its printed difference view.")
      .def_property_readonly("all_close", [](const PyComparison& p) { return p.c.allClose; })
      .def_property_readonly("all_identical", [](const PyComparison& p) { return p.c.allIdentical; })
      .def_property_readonly("cosine_distance", [](const PyComparison& p) { return p.c.cosineDistance; })
      .def_property_readonly("root_mean_square_deviation", [](const PyComparison& p) { return p.c.rootMeanSquareDeviation; })
      .def_property_readonly("maximum_quantization_noise", [](const PyComparison& p) { return p.c.maximumQuantizationNoise; })
      .def_property_readonly("signal_quantization_noise_ratio",
                             [](const PyComparison& p) { return p.c.signalQuantizationNoiseRatio; })
      .def_property_readonly("elements", [](const PyComparison& p) { return p.c.elements; })
      .def_property_readonly("mismatches", [](const PyComparison& p) { return p.c.mismatches; })
      .def_property_readonly("worst", [](const PyComparison& p) {
        py::list rows;
        for (const ElementDifference& w : p.c.worst)
          rows.append(py::make_tuple(py::tuple(py::cast(w.coord)), w.expected, w.actual, w.difference));
        return rows;
      }, "The worst elements as (coordinate, expected, actual, difference), worst first.")
      .def("view", [](const PyComparison& p) { return differenceView(p.c); }, "The printed difference view.")
      .def("__str__", [](const PyComparison& p) { return formatMetrics(p.c) + differenceView(p.c); })
      .def("__bool__", [](const PyComparison& p) { return p.c.allClose; });

  m.def("compare", &compare, py::arg("expected"), py::arg("actual"), py::arg("rtol") = 1e-5, py::arg("atol") = 1e-8,
        py::arg("equal_nan") = false, py::arg("worst") = 10, "All metrics of actual against expected at once.");
  m.def("AllClose", [](py::handle e, py::handle a, double rtol, double atol, bool equalNan) {
          return metric<bool>(e, a, [&](bool& r, const Tensor& x, const Tensor& y) { return AllClose(r, x, y, rtol, atol, equalNan); });
        }, py::arg("expected"), py::arg("actual"), py::arg("rtol") = 1e-5, py::arg("atol") = 1e-8,
        py::arg("equal_nan") = false, "|actual - expected| <= atol + rtol * |expected| everywhere (numpy's allclose).");
  m.def("AllIdentical", [](py::handle e, py::handle a) { return metric<bool>(e, a, [](auto&... x) { return AllIdentical(x...); }); },
        py::arg("expected"), py::arg("actual"), "Same element type and the same bytes everywhere.");
  m.def("CosineDistance", [](py::handle e, py::handle a) { return metric<double>(e, a, [](auto&... x) { return CosineDistance(x...); }); },
        py::arg("expected"), py::arg("actual"), "1 - cosine similarity of the two tensors.");
  m.def("RootMeanSquareDeviation",
        [](py::handle e, py::handle a) { return metric<double>(e, a, [](auto&... x) { return RootMeanSquareDeviation(x...); }); },
        py::arg("expected"), py::arg("actual"), "sqrt(mean((actual - expected)^2)).");
  m.def("MaximumQuantizationNoise",
        [](py::handle e, py::handle a) { return metric<double>(e, a, [](auto&... x) { return MaximumQuantizationNoise(x...); }); },
        py::arg("expected"), py::arg("actual"), "max |actual - expected|.");
  m.def("SignalQuantizationNoiseRatio",
        [](py::handle e, py::handle a) { return metric<double>(e, a, [](auto&... x) { return SignalQuantizationNoiseRatio(x...); }); },
        py::arg("expected"), py::arg("actual"), "10 log10(sum(expected^2) / sum((actual - expected)^2)), in dB.");
}
