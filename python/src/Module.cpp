// The extension module under the `korvane` package: the option tables of
// the commands as data, and one effect class that opens a render session of
// the front-end core on a photo and renders frames from it. The package's
// Python code builds the public functions and classes from these.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <map>
#include <memory>
#include <mutex>

#include "Options.h"
#include "Pixels.h"
#include "frontend/Session.h"

namespace KorvanePython {

namespace {

using namespace KorvaneFrontend;

// korvane.Error, defined by the package and handed over when it loads.
py::object& ErrorClass() {
  static py::object* cls = new py::object();  // never destroyed: outlives interpreter shutdown
  return *cls;
}

// A usage problem, a value this photo cannot take or an input that does
// not fit is the caller's mistake: ValueError. A failed library call is a
// korvane.Error carrying the result code.
[[noreturn]] void Raise(const Status& s) {
  const std::string text = s.Text(PyName(s.input));
  if (s.kind == Status::kUsage || s.code >= 0 || !s.input.empty() || ErrorClass().is_none()) {
    throw py::value_error(text);
  }
  PyErr_SetObject(ErrorClass().ptr(), ErrorClass()(text, s.code).ptr());
  throw py::error_already_set();
}

const OptionDef& KeywordOption(const CommandDef& cmd, const std::string& key) {
  for (const OptionDef& o : cmd.options) {
    if (IsKeyword(o) && PyName(o.name) == key) return o;
  }
  throw py::type_error(PyName(cmd.name) + "() got an unexpected keyword argument '" + key + "'");
}

bool IsImage(const py::handle& value) { return py::isinstance<py::array>(value); }

class Effect {
 public:
  Effect(const std::string& command, const py::object& photo, const py::object& order, const py::dict& options)
      : m_cmd(FindCommand(command)), m_values(Found(m_cmd, command)) {
    m_order = OrderOf(order, ColorChannels(photo, "photo", false));
    m_photo = ColorIn(photo, m_order, "photo");
    for (const auto& [key, value] : options) {
      if (value.is_none()) continue;
      const OptionDef& o = KeywordOption(*m_cmd, key.cast<std::string>());
      if (o.role == OptionRole::kLoop) throw py::type_error("frames are chosen when rendering");
      SetInput(o, value);
    }
    Status s;
    {
      py::gil_scoped_release unlocked;
      m_engine = std::make_unique<Engine>();
      s = OpenSession(*m_engine, m_values, m_photo.view, m_inputs, m_session);
    }
    if (!s.ok()) Raise(s);
  }

  // Frame `frame` of a loop of `frames` (1: a still) with `options` changed
  // for this render only.
  py::array Render(double frame, double frames, const py::dict& options) {
    OptionValues values = m_values;
    for (const auto& [key, value] : options) {
      if (value.is_none()) continue;
      const OptionDef& o = KeywordOption(*m_cmd, key.cast<std::string>());
      if (o.role != OptionRole::kRender || (o.or_image && IsImage(value))) {
        throw py::type_error(PyName(o.name) + " is given when the effect is made, not when it renders");
      }
      SetValue(values, o, value);
    }
    if (m_cmd->Animated()) {
      // The table's ranges: whole numbers, and no count a loop cannot have.
      Check(values.SetNumber("frames", frames));
      Check(values.SetNumber("frame", frame));
    } else if (frame != 0 || frames != 1) {
      throw py::value_error(PyName(m_cmd->name) + " renders stills only");
    }
    const Status combination = CheckCombination(values, static_cast<int32_t>(frames));
    if (!combination.ok()) Raise(combination);

    const bool direct = HasAlpha(m_order);
    py::array_t<uint8_t> out = NewArray(m_session->width(), m_session->height(), ChannelsOf(m_order));
    uint8_t* pixels = out.mutable_data();
    Status s;
    {
      py::gil_scoped_release unlocked;
      std::lock_guard<std::mutex> lock(m_lock);
      ImageView view{pixels, m_session->width(), m_session->height(), m_session->width() * 4, 4};
      if (!direct) {
        if (m_scratch.width != view.width || m_scratch.height != view.height) {
          m_scratch = Image(view.width, view.height, 4);
        }
        view = m_scratch.View();
      }
      s = m_session->Render(values, static_cast<int32_t>(frame), static_cast<int32_t>(frames), view);
      if (s.ok() && m_order == Order::kRGBA) SwapRedBlue(view);
      if (s.ok() && !direct) CopyFrame(view, m_order, pixels);
    }
    if (!s.ok()) Raise(s);
    return out;
  }

  // The frames the tool renders for the settings the effect was made with
  // when the count is left out: a still unless something moves.
  int32_t frame_count() const { return FrameCount(m_values); }

  int32_t width() const { return m_session->width(); }
  int32_t height() const { return m_session->height(); }
  std::vector<std::string> warnings() const { return m_session->Warnings(); }

  // What the last render did; waits for a render another thread is making.
  std::string summary() {
    py::gil_scoped_release unlocked;
    std::lock_guard<std::mutex> lock(m_lock);
    return m_session->Summary();
  }

  // The light points bokeh and sparkle found, in the form of the tool's
  // --points-json; None for other commands.
  py::object LightPoints() {
    Korvane::LightPointSummary summary;
    std::vector<Korvane::LightPointInfo> points;
    bool found = false;
    {
      py::gil_scoped_release unlocked;
      std::lock_guard<std::mutex> lock(m_lock);
      found = m_session->LightPoints(summary, points);
    }
    if (!found) return py::none();
    py::list list;
    for (const Korvane::LightPointInfo& p : points) {
      list.append(py::dict(py::arg("x") = p.x, py::arg("y") = p.y, py::arg("phase") = p.phase,
                           py::arg("random") = p.random, py::arg("color") = p.color_index));
    }
    return py::dict(py::arg("width") = summary.norm_width, py::arg("height") = summary.norm_height,
                    py::arg("points") = list);
  }

 private:
  static const CommandDef& Found(const CommandDef* cmd, const std::string& command) {
    if (!cmd) throw py::value_error("no command '" + command + "'");
    return *cmd;
  }

  // An option given when the effect is made: an input beside the photo or a
  // setting that later renders start from.
  void SetInput(const OptionDef& o, const py::handle& value) {
    const std::string name = PyName(o.name);
    if (o.kind == OptionKind::kImage) {
      m_images[o.name] = GrayIn(py::reinterpret_borrow<py::object>(value), name);
      m_inputs.images[o.name] = m_images[o.name].view;
    } else if (o.or_image && IsImage(value)) {
      m_images[o.name] = ColorIn(py::reinterpret_borrow<py::object>(value), m_order, name, true);
      m_inputs.images[o.name] = m_images[o.name].view;
      Check(m_values.Set(o.name, "(image)"));
    } else if (o.kind == OptionKind::kFlows || o.kind == OptionKind::kSparkles) {
      // The package hands these over as the JSON text of the tool's files.
      if (!py::isinstance<py::str>(value)) throw py::type_error(name + " must be a list or dict");
      std::string error;
      const std::string text = value.cast<std::string>();
      const bool ok = o.kind == OptionKind::kFlows ? ParseFlowsJson(text, name, m_inputs.flows, error)
                                                   : ParsePlacedSparklesJson(text, name, m_inputs.sparkles, error);
      Check(error);
      if (!ok) throw py::value_error(name + " could not be read");
    } else {
      SetValue(m_values, o, value);
    }
  }

  const CommandDef* m_cmd;
  OptionValues m_values;  // as given when the effect was made
  Order m_order = Order::kRGB;
  // The pixels the session reads; declared before it, so they outlive it.
  PixelsIn m_photo;
  std::map<std::string, PixelsIn> m_images;
  Inputs m_inputs;
  std::unique_ptr<Engine> m_engine;
  std::unique_ptr<Session> m_session;
  Image m_scratch;
  std::mutex m_lock;  // one render at a time per session
};

const char* KindName(OptionKind kind) {
  switch (kind) {
    case OptionKind::kNumber: return "number";
    case OptionKind::kWhole: return "whole";
    case OptionKind::kChoice: return "choice";
    case OptionKind::kFlag: return "flag";
    case OptionKind::kPoint: return "point";
    case OptionKind::kRect: return "rect";
    case OptionKind::kNumbers: return "numbers";
    case OptionKind::kText: return "text";
    case OptionKind::kImage: return "image";
    case OptionKind::kFlows: return "flows";
    case OptionKind::kSparkles: return "sparkles";
    case OptionKind::kPhotos: return "photos";
  }
  return "";
}

const char* RoleName(OptionRole role) {
  switch (role) {
    case OptionRole::kPhoto: return "photo";
    case OptionRole::kRender: return "render";
    case OptionRole::kInput: return "input";
    case OptionRole::kLoop: return "loop";
    case OptionRole::kWrite: return "write";
  }
  return "";
}

// Every command with its Python keyword options, in the tool's --help order.
py::list CommandList() {
  py::list commands;
  for (const CommandDef& c : KorvaneFrontend::Commands()) {
    py::list options;
    for (const OptionDef& o : c.options) {
      if (!IsKeyword(o)) continue;
      py::list parts;
      for (const OptionPart& p : o.parts) parts.append(py::make_tuple(p.name, p.lo, p.hi));
      py::dict d;
      d["name"] = PyName(o.name);
      d["flag"] = "--" + o.name;
      d["kind"] = KindName(o.kind);
      d["role"] = RoleName(o.role);
      d["lo"] = o.lo;
      d["hi"] = o.hi;
      d["unit"] = o.unit;
      d["default"] = o.default_text;
      d["absent"] = o.absent;
      d["help"] = o.help;
      d["help_line"] = HelpLine(o);
      d["choices"] = o.choices;
      d["or_image"] = o.or_image;
      d["required"] = o.required;
      d["parts"] = parts;
      options.append(d);
    }
    py::dict command;
    command["name"] = PyName(c.name);
    command["command"] = c.name;
    command["summary"] = c.summary;
    command["animated"] = c.Animated();
    // Commands whose light points the tool can write can list them.
    command["light_points"] = c.Find("points-json") != nullptr;
    command["options"] = options;
    commands.append(command);
  }
  return commands;
}

py::dict EngineInfo() {
  Korvane::EngineInfo info;
  {
    py::gil_scoped_release unlocked;
    Engine engine;
    if (!engine.get() || engine.get()->GetInfo(&info) < 0) info = Korvane::EngineInfo();
  }
  py::dict d;
  d["version"] = std::string(info.version);
  d["processor_count"] = info.processor_count;
  d["worker_count"] = info.worker_count;
  d["simd_level"] = info.simd_level;
  d["avx_level"] = info.avx_level;
  d["kernel_forms"] = std::string(info.kernel_forms);
  return d;
}

}  // namespace

}  // namespace KorvanePython

PYBIND11_MODULE(_korvane, m) {
  using namespace KorvanePython;
  m.doc() = "Korvane's render core for the korvane package";
  m.def("commands", &CommandList, "Every command's keyword options, in the tool's --help order.");
  m.def("engine_info", &EngineInfo, "The library's version and what it runs on.");
  m.def("_set_error_class", [](py::object cls) { ErrorClass() = std::move(cls); });
  py::class_<Effect>(m, "Effect")
      .def(py::init<const std::string&, const py::object&, const py::object&, const py::dict&>(), py::arg("command"),
           py::arg("photo"), py::arg("order"), py::arg("options"))
      .def("render", &Effect::Render, py::arg("frame"), py::arg("frames"), py::arg("options"))
      .def_property_readonly("frame_count", &Effect::frame_count)
      .def_property_readonly("width", &Effect::width)
      .def_property_readonly("height", &Effect::height)
      .def_property_readonly("warnings", &Effect::warnings)
      .def_property_readonly("summary", &Effect::summary)
      .def("light_points", &Effect::LightPoints);
}
