// The engine's Python binding: numpy arrays wrapped as images without a copy,
// the three front ends, and the stage catalogue from which kvimage/__init__.py
// makes one method per setter.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <kvimage/catalogue.h>
#include <kvimage/kvimage.h>

namespace py = pybind11;

namespace {

using kvo::image::KVFrontEnd;
using kvo::image::KVImage8;
using kvo::image::KVPixelChannelOrder;

PyObject* g_errorType = nullptr;

// Raises kvimage.Error for a non-zero result code of call.
[[noreturn]] void RaiseResult(int code, const std::string& call) {
  const char* meaning = kvo::ResultCodeMeaning(code);
  py::object error = py::reinterpret_borrow<py::object>(g_errorType)(call + ": " + meaning + " (code " +
                                                                      std::to_string(code) + ")");
  error.attr("code") = code;
  error.attr("meaning") = meaning;
  PyErr_SetObject(g_errorType, error.ptr());
  throw py::error_already_set();
}

// One set of tables for every front end, never destroyed: a front end may be
// collected after the module's statics are gone.
kvo::KVLookupTables& Tables() {
  static kvo::KVLookupTables* tables = new kvo::KVLookupTables;
  return *tables;
}

// "SetYUVBlur" -> "set_yuv_blur", "saturationLimit" -> "saturation_limit".
std::string PythonName(const std::string& name) {
  std::string result;
  for (size_t i = 0; i < name.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(name[i]);
    const bool wordStart = std::isupper(c) && i > 0 &&
                           (std::islower(static_cast<unsigned char>(name[i - 1])) ||
                            (i + 1 < name.size() && std::islower(static_cast<unsigned char>(name[i + 1]))));
    if (wordStart) result += '_';
    result += static_cast<char>(std::tolower(c));
  }
  return result;
}

KVPixelChannelOrder OrderNamed(const std::string& order) {
  if (order == "bgra") return kvo::image::kPixelOrderBGRA;
  if (order == "argb") return kvo::image::kPixelOrderARGB;
  throw py::value_error("order must be 'bgra' or 'argb'; got '" + order + "'");
}

// A numpy array the engine reads and writes in place. Holding the array keeps
// its buffer alive for as long as the engine may touch it.
struct WrappedArray {
  py::array array;
  std::unique_ptr<KVImage8> image;
};

const char kExpectedArray[] =
    "a numpy array of shape (height, width, 4), dtype uint8, C-contiguous and writable";

std::string Describe(const py::array& array) {
  std::string shape = "(";
  for (py::ssize_t i = 0; i < array.ndim(); ++i) shape += (i ? ", " : "") + std::to_string(array.shape(i));
  return shape + (array.ndim() == 1 ? ",)" : ")");
}

WrappedArray Wrap(const py::handle& object, const std::string& role, KVPixelChannelOrder order) {
  const std::string expected = role + " must be " + kExpectedArray;
  if (!py::isinstance<py::array>(object)) {
    throw py::type_error(expected + "; got " + std::string(py::str(py::type::of(object).attr("__name__"))));
  }
  py::array array = py::reinterpret_borrow<py::array>(object);
  if (array.dtype().kind() != 'u' || array.itemsize() != 1) {
    throw py::type_error(expected + "; got dtype " + std::string(py::str(array.dtype())));
  }
  if (array.ndim() != 3 || array.shape(2) != 4) {
    const bool rgb = array.ndim() == 3 && array.shape(2) == 3;
    throw py::value_error(expected + "; got shape " + Describe(array) +
                          (rgb ? " (kvimage.from_rgb adds the alpha and reorders)" : ""));
  }
  if (!(array.flags() & py::array::c_style)) {
    throw py::value_error(expected + "; got a strided view (numpy.ascontiguousarray copies it)");
  }
  // Sources too: the defocus stage blurs its input, the source when it comes first, in place.
  if (!array.writeable()) throw py::value_error(expected + "; got a read-only array");
  const py::ssize_t height = array.shape(0), width = array.shape(1);
  if (height < 1 || width < 1 || static_cast<unsigned long long>(height) * static_cast<unsigned long long>(width) *
                                         4u > UINT_MAX) {
    throw py::value_error(role + " must be at least 1x1 and at most 4 GiB; got shape " + Describe(array));
  }
  WrappedArray wrapped;
  wrapped.image.reset(new KVImage8(static_cast<unsigned char*>(array.mutable_data()), static_cast<unsigned int>(width),
                                   static_cast<unsigned int>(height), order));
  wrapped.array = array;
  return wrapped;
}

bool Overlap(const WrappedArray& a, const WrappedArray& b) {
  const char* aStart = static_cast<const char*>(a.array.data());
  const char* bStart = static_cast<const char*>(b.array.data());
  return aStart < bStart + b.array.nbytes() && bStart < aStart + a.array.nbytes();
}

const kvo::image::KVSetterInfo& Row(KVFrontEnd frontEnd, const std::string& name) {
  const kvo::image::KVSetterInfo* row = kvo::image::FindSetter(frontEnd, name.c_str());
  if (row == nullptr) throw py::value_error("no setter named " + name);
  return *row;
}

// The processor and the keyer queue by name without layers, the compositor
// with them.
template <class Engine>
int QueueOn(Engine& engine, const std::string& name, const std::vector<double>& values,
            const std::vector<kvo::image::KVAbstractImage*>&) {
  return kvo::image::QueueSetter(engine, name.c_str(), values.data(), static_cast<unsigned int>(values.size()));
}
int QueueOn(kvo::image::KVImageCompositor& engine, const std::string& name, const std::vector<double>& values,
            const std::vector<kvo::image::KVAbstractImage*>& layers) {
  return kvo::image::QueueSetter(engine, name.c_str(), values.data(), static_cast<unsigned int>(values.size()),
                                 layers.data(), static_cast<unsigned int>(layers.size()));
}

// A front end and the arrays it works on: the processor and the keyer a
// source and a destination of the same shape, the compositor a background it
// works on in place. It holds every array, layers included until the queue
// is cleared, and lets one render or queue change run at a time.
template <class Engine, KVFrontEnd kFrontEnd>
class FrontEnd {
 public:
  // The processor and the keyer.
  FrontEnd(const py::object& source, const py::object& destination, const std::string& order)
      : m_order(OrderNamed(order)) {
    m_arrays.push_back(Wrap(source, "source", m_order));
    const py::array sourceArray = m_arrays[0].array;
    if (destination.is_none()) {
      py::array_t<unsigned char> zeros({sourceArray.shape(0), sourceArray.shape(1), py::ssize_t(4)});
      std::fill_n(zeros.mutable_data(), zeros.size(), static_cast<unsigned char>(0));
      m_arrays.push_back(Wrap(zeros, "destination", m_order));
    } else {
      m_arrays.push_back(Wrap(destination, "destination", m_order));
    }
    const py::array destinationArray = m_arrays[1].array;
    if (destinationArray.shape(0) != sourceArray.shape(0) || destinationArray.shape(1) != sourceArray.shape(1)) {
      throw py::value_error("destination must have the source's shape " + Describe(sourceArray) + "; got " +
                            Describe(destinationArray));
    }
    if (Overlap(m_arrays[0], m_arrays[1])) throw py::value_error("destination must not share memory with the source");
    m_written = destinationArray;
    m_engine.reset(new Engine(m_arrays[0].image.get(), m_arrays[1].image.get(), Tables(), kvo::image::kDownsampleNone));
  }

  // The compositor.
  FrontEnd(const py::object& background, double opacity, const std::string& order) : m_order(OrderNamed(order)) {
    m_arrays.push_back(Wrap(background, "background", m_order));
    m_written = m_arrays[0].array;
    m_engine.reset(new Engine(m_arrays[0].image.get(), opacity, Tables(), kvo::image::kDownsampleNone));
  }

  void Queue(const std::string& name, const std::vector<double>& values, const py::list& layers) {
    const kvo::image::KVSetterInfo& row = Row(kFrontEnd, name);
    if (row.requiresBGRA && m_order != kvo::image::kPixelOrderBGRA) {
      // The stage would reach its assertion.
      throw py::value_error(PythonName(name) + " renders BGRA images only; this front end was made with order='argb'");
    }
    std::vector<WrappedArray> wrapped;
    std::vector<kvo::image::KVAbstractImage*> images;
    for (const py::handle& layer : layers) {
      wrapped.push_back(Wrap(layer, "layer", m_order));
      if (Overlap(wrapped.back(), m_arrays[0])) throw py::value_error("a layer must not share memory with the background");
      images.push_back(wrapped.back().image.get());
    }
    // The layers join the held arrays under the lock, with the stage that uses
    // them (moving a handle leaves its reference count alone).
    const int code = Locked([&] {
      const int queued = QueueOn(*m_engine, name, values, images);
      if (queued == 0) {
        for (WrappedArray& layer : wrapped) m_arrays.push_back(std::move(layer));
      }
      return queued;
    });
    if (code != 0) RaiseResult(code, PythonName(name));
  }

  py::array Render() {
    const int code = Locked([&] { return m_engine->Render(); });
    if (code != 0) RaiseResult(code, "render");
    return m_written;
  }

  void Clear() {
    std::vector<WrappedArray> layers;  // released after the lock, with the interpreter lock held
    Locked([&] {
      const size_t imagesOfTheFrontEnd = kFrontEnd == kvo::image::kFrontEndCompositor ? 1 : 2;
      std::move(m_arrays.begin() + imagesOfTheFrontEnd, m_arrays.end(), std::back_inserter(layers));
      m_arrays.resize(imagesOfTheFrontEnd);
      return m_engine->ClearRenderQueue();
    });
  }

  unsigned int QueueCount() {
    return static_cast<unsigned int>(Locked([&] { return static_cast<int>(m_engine->RenderQueueCount()); }));
  }
  py::array Image(size_t index) const { return m_arrays[index].array; }

 private:
  // Runs an engine call without the interpreter lock, one at a time per front end.
  template <class Call>
  int Locked(Call call) {
    py::gil_scoped_release release;
    std::lock_guard<std::mutex> lock(m_mutex);
    return call();
  }

  KVPixelChannelOrder m_order;
  std::mutex m_mutex;
  // Declared before the engine, which points at their images, so they outlive it.
  std::vector<WrappedArray> m_arrays;
  py::array m_written;
  std::unique_ptr<Engine> m_engine;
};

typedef FrontEnd<kvo::image::KVImageProcessor, kvo::image::kFrontEndProcessor> Processor;
typedef FrontEnd<kvo::image::KVImageKeyer, kvo::image::kFrontEndKeyer> Keyer;
typedef FrontEnd<kvo::image::KVImageCompositor, kvo::image::kFrontEndCompositor> Compositor;

const char* TypeName(kvo::image::KVParameterType type) {
  switch (type) {
    case kvo::image::kParameterReal: return "real";
    case kvo::image::kParameterInteger: return "integer";
    case kvo::image::kParameterRadius: return "radius";
    case kvo::image::kParameterBool: return "bool";
    case kvo::image::kParameterChoice: return "choice";
    case kvo::image::kParameterColour: return "colour";
    case kvo::image::kParameterPoint: return "point";
    case kvo::image::kParameterRect: return "rect";
    case kvo::image::kParameterQuad: return "quad";
    case kvo::image::kParameterLayer: return "layer";
  }
  return "unknown";
}

const char* CheckName(kvo::image::KVParameterCheck check) {
  switch (check) {
    case kvo::image::kCheckNone: return "none";
    case kvo::image::kCheckRange: return "range";
    case kvo::image::kCheckChannelSelection: return "channel-selection";
    case kvo::image::kCheckDirectionPair: return "direction-pair";
    case kvo::image::kCheckLayerMatches: return "layer-matches";
  }
  return "unknown";
}

// The catalogue's rows as Python dictionaries.
py::list Catalogue() {
  py::list rows;
  for (unsigned int i = 0; i < kvo::image::SetterCount(); ++i) {
    const kvo::image::KVSetterInfo& setter = *kvo::image::SetterAt(i);
    py::list parameters;
    for (unsigned int p = 0; p < setter.parameterCount; ++p) {
      const kvo::image::KVParameterInfo& info = setter.parameters[p];
      const unsigned int numbers = kvo::image::NumberCount(info.type);
      py::list choices;
      for (unsigned int c = 0; c < info.choiceCount; ++c) choices.append(py::make_tuple(info.choices[c].name, info.choices[c].value));
      py::dict parameter;
      parameter["name"] = info.name;
      parameter["python_name"] = PythonName(info.name);
      parameter["type"] = TypeName(info.type);
      parameter["numbers"] = numbers;
      parameter["check"] = CheckName(info.check);
      parameter["minimum"] = info.minimum;
      parameter["maximum"] = info.maximum;
      parameter["defaults"] = std::vector<double>(info.defaults, info.defaults + (info.defaults ? numbers : 0));
      parameter["unit"] = info.unit;
      parameter["choices"] = choices;
      parameter["explanation"] = info.explanation;
      parameters.append(parameter);
    }
    py::dict row;
    row["front_end"] = static_cast<int>(setter.frontEnd);
    row["name"] = setter.name;
    row["python_name"] = PythonName(setter.name);
    row["stage"] = setter.stage;
    row["explanation"] = setter.explanation;
    row["parameters"] = parameters;
    row["codes"] = std::vector<int>(setter.codes, setter.codes + setter.codeCount);
    row["requires_bgra"] = setter.requiresBGRA;
    row["same_bytes_at_any_thread_count"] = setter.sameBytesAtAnyThreadCount;
    rows.append(row);
  }
  return rows;
}

int DetectKeyColor(const py::object& frame) {
  WrappedArray wrapped = Wrap(frame, "frame", kvo::image::kPixelOrderBGRA);
  kvo::image::KVKeyColor colour = kvo::image::kKeyColorAuto;
  {
    py::gil_scoped_release release;
    const unsigned int threads = std::min(kvo::KVSystem::GetCPUCoreCount(), 255u);
    kvo::image::AutoDetectKeyColor(wrapped.image.get(), static_cast<int>(threads), &colour);
  }
  return static_cast<int>(colour);
}

template <class FrontEnd, class Class>
void DefineQueueAndRender(Class& cls) {
  cls.def("_queue", &FrontEnd::Queue, py::arg("name"), py::arg("values"), py::arg("layers"),
          "Queues the catalogue setter name with its flat list of numbers (the generated methods call this).")
      .def("render", &FrontEnd::Render,
           "Runs the queued stages (without the interpreter lock) and returns the array written.")
      .def("clear", &FrontEnd::Clear, "Empties the queue.")
      .def_property_readonly("queue_count", &FrontEnd::QueueCount, "The number of queued stages.");
}

}  // namespace

PYBIND11_MODULE(_kvimage, m) {
  m.doc() = "The compiled part of kvimage; use the kvimage package.";
  g_errorType = PyErr_NewExceptionWithDoc(
      "kvimage.Error",
      "A call of the engine returned a non-zero result code: .code is the code, .meaning what it means.",
      nullptr, nullptr);
  m.attr("Error") = py::reinterpret_borrow<py::object>(g_errorType);

  const char* images =
      "Arrays are numpy arrays of shape (height, width, 4), dtype uint8, C-contiguous and writable, "
      "wrapped without a copy and held while the front end lives. order is the bytes' meaning: "
      "'bgra' (blue, green, red, alpha; what every stage takes) or 'argb'.";

  py::class_<Processor> processor(m, "Processor",
                                  (std::string("The effects pipeline: each set_* method queues a stage; render() runs "
                                               "them from source into destination (zeros of the source's shape when "
                                               "None) and returns destination. ") + images).c_str());
  processor.def(py::init<const py::object&, const py::object&, const std::string&>(), py::arg("source"),
                py::arg("destination") = py::none(), py::kw_only(), py::arg("order") = "bgra")
      .def_property_readonly("source", [](const Processor& f) { return f.Image(0); })
      .def_property_readonly("destination", [](const Processor& f) { return f.Image(1); });
  DefineQueueAndRender<Processor>(processor);

  py::class_<Keyer> keyer(m, "Keyer",
                          (std::string("The keying pipeline: the processor's queue with the keying and matte stages; "
                                       "render() returns destination (zeros of the source's shape when None). ") +
                           images).c_str());
  keyer.def(py::init<const py::object&, const py::object&, const std::string&>(), py::arg("source"),
            py::arg("destination") = py::none(), py::kw_only(), py::arg("order") = "bgra")
      .def_property_readonly("source", [](const Keyer& f) { return f.Image(0); })
      .def_property_readonly("destination", [](const Keyer& f) { return f.Image(1); });
  DefineQueueAndRender<Keyer>(keyer);

  py::class_<Compositor> compositor(
      m, "Compositor",
      (std::string("The layering pipeline: every stage works in place on background, which render() returns. An "
                   "opacity below 1 fades the background once, when the compositor is made. Layers are held until "
                   "clear(). ") + images).c_str());
  compositor
      .def(py::init<const py::object&, double, const std::string&>(), py::arg("background"), py::arg("opacity") = 1.0,
           py::kw_only(), py::arg("order") = "bgra")
      .def_property_readonly("background", [](const Compositor& f) { return f.Image(0); });
  DefineQueueAndRender<Compositor>(compositor);

  m.def("catalogue", &Catalogue, "Every setter of the three front ends with its parameters, as dictionaries.");
  m.def("result_meaning", &kvo::ResultCodeMeaning, py::arg("code"), "What a result code means.");
  m.def("detect_key_color", &DetectKeyColor, py::arg("frame"),
        "The key colour the automatic key would pull from a BGRA frame, as its value (1 green, 2 blue).");
  m.def(
      "set_threads", [](unsigned int count) { kvo::KVSystem::SetCPUCoreCount(count); }, py::arg("count"),
      "Fixes the number of threads every later render uses (at most 255 are used); 0 returns to one per core.");
  m.def(
      "thread_count", [] { return std::min(kvo::KVSystem::GetCPUCoreCount(), 255u); },
      "The number of threads a render uses now.");
}
