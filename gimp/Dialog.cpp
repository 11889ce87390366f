#include "Dialog.h"

#include <libgimp/gimpui.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <memory>
#include <vector>

#include "Filter.h"

namespace KorvaneGimp {

using KorvaneFrontend::Image;
using KorvaneFrontend::OptionKind;
using KorvaneFrontend::OptionDef;

namespace {

class Dialog;

// One option's control: what sets the option's value from the widgets.
struct Control {
  Dialog* dialog = nullptr;
  const OptionDef* option = nullptr;
  GtkObject* scale = nullptr;         // numbers: the scale entry's adjustment
  GtkWidget* combo = nullptr;         // choices: the index is the choice's number
  GtkWidget* check = nullptr;         // switches
  std::vector<GtkAdjustment*> parts;  // points, rectangles, lists of numbers
  GtkWidget* parts_box = nullptr;
  // Numbers that may stay automatic and lists that may be left out have a
  // toggle: "Auto" where leaving the option out has a meaning of its own
  // (the brightest region, 1.5 % of the longer side), else "On".
  GtkWidget* toggle = nullptr;
  bool toggle_is_auto = false;

  bool Given() const {
    if (!toggle) return true;
    const bool active = gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(toggle));
    return toggle_is_auto ? !active : active;
  }
};

// "shift-x" as a label: "Shift x:".
std::string Label(const std::string& name, const char* end = ":") {
  std::string s = name;
  std::replace(s.begin(), s.end(), '-', ' ');
  s[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(s[0])));
  return s + end;
}

class Dialog {
 public:
  Dialog(gint32 image, gint32 layer, Request& request)
      : m_image(image), m_layer(layer), m_request(request), m_session(image, layer) {}

  bool Run();

  // Sets the option of `control` from its widgets.
  void Take(Control& control);
  // An input changed: the session opens again before the next render.
  void TakeItem(Control& control, gint32 id);
  void Draw(GimpPreview* preview);
  gint32 image() const { return m_image; }

 private:
  GtkWidget* BuildControls();
  void AddNumber(GtkTable* table, int row, Control& c);
  void AddList(GtkTable* table, int row, Control& c);
  void AddChoice(GtkTable* table, int row, Control& c);
  void AddItem(GtkTable* table, int row, Control& c);
  void AddToggle(GtkTable* table, int row, Control& c, bool given);
  void Changed();
  void Prepare();

  gint32 m_image, m_layer;
  Request& m_request;
  LayerSession m_session;
  bool m_open_again = true;    // inputs changed, or the session did not open
  bool m_render_again = true;  // values changed
  Image m_frame;               // the last render; empty when it failed
  std::string m_problem;       // why the preview shows no render
  std::string m_refused;       // why the last value set was refused
  GtkWidget* m_preview = nullptr;
  GtkWidget* m_message = nullptr;
  std::vector<std::unique_ptr<Control>> m_controls;
};

// Every value control calls back with its Control, whatever the widget.
void OnValue(GtkWidget*, Control* c) { c->dialog->Take(*c); }

void OnItem(GtkWidget* combo, Control* c) {
  gint id = -1;
  if (!gimp_int_combo_box_get_active(GIMP_INT_COMBO_BOX(combo), &id)) id = -1;
  c->dialog->TakeItem(*c, id);
}

void OnInvalidated(Dialog* dialog, GimpPreview* preview) { dialog->Draw(preview); }

gboolean OfThisImage(gint32 image, gint32, gpointer data) {
  return image == static_cast<Dialog*>(data)->image();
}

void Dialog::Take(Control& c) {
  KorvaneFrontend::OptionValues& v = m_request.values;
  const OptionDef& o = *c.option;
  std::string problem;
  gint index = 0;
  if (!c.Given()) {
    v.Reset(o.name);
  } else if (c.check) {
    problem = v.SetFlag(o.name, gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(c.check)));
  } else if (c.combo) {
    if (gimp_int_combo_box_get_active(GIMP_INT_COMBO_BOX(c.combo), &index)) problem = v.SetNumber(o.name, index);
  } else if (c.scale) {
    const double value = gtk_adjustment_get_value(GTK_ADJUSTMENT(c.scale));
    problem = v.SetNumber(o.name, o.kind == OptionKind::kWhole ? std::round(value) : value);
  } else if (!c.parts.empty()) {
    std::vector<double> numbers;
    for (GtkAdjustment* a : c.parts) {
      numbers.push_back(o.kind == OptionKind::kRect ? std::round(gtk_adjustment_get_value(a)) : gtk_adjustment_get_value(a));
    }
    problem = v.SetNumbers(o.name, numbers);
  }
  if (c.scale && c.toggle) gimp_scale_entry_set_sensitive(c.scale, c.Given());
  if (c.parts_box) gtk_widget_set_sensitive(c.parts_box, c.Given());
  m_refused = problem;
  m_render_again = true;
  Changed();
}

void Dialog::TakeItem(Control& c, gint32 id) {
  m_request.items[c.option->name] = id;
  m_open_again = true;
  Changed();
}

void Dialog::Changed() {
  // A session that did not open may open with other values (a radius this
  // photo cannot take, a frame past the loop's end).
  if (!m_session.IsOpen()) m_open_again = true;
  if (m_preview) gimp_preview_invalidate(GIMP_PREVIEW(m_preview));
}

void Dialog::AddToggle(GtkTable* table, int row, Control& c, bool given) {
  c.toggle_is_auto = !c.option->absent.empty();
  c.toggle = gtk_check_button_new_with_label(c.toggle_is_auto ? "Auto" : "On");
  gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(c.toggle), c.toggle_is_auto ? !given : given);
  gimp_help_set_help_data(c.toggle, c.toggle_is_auto ? ("Automatic: " + c.option->absent).c_str() : nullptr, nullptr);
  gtk_table_attach(table, c.toggle, 3, 4, row, row + 1, GTK_FILL, GTK_FILL, 0, 0);
  g_signal_connect(c.toggle, "toggled", G_CALLBACK(OnValue), &c);
}

void Dialog::AddNumber(GtkTable* table, int row, Control& c) {
  const OptionDef& o = *c.option;
  const KorvaneFrontend::Image& photo = m_session.photo();
  // A slider over millions of steps is of no use: lengths in pixels reach to
  // the layer's longer side and other wide ranges to a thousand; the number
  // field beside it still takes the whole range.
  double scale_hi = o.hi;
  if (o.unit == "pixels") scale_hi = std::min(o.hi, std::max(o.lo + 1.0, 1.0 * std::max(photo.width, photo.height)));
  else if (o.hi - o.lo > 100000) scale_hi = o.lo + 1000;
  const double span = scale_hi - o.lo;
  const int digits = o.kind == OptionKind::kWhole ? 0 : span <= 10 ? 2 : span <= 1000 ? 1 : 0;
  const double step = std::pow(10.0, -digits);
  const bool given = m_request.values.Has(o.name);
  c.scale = gimp_scale_entry_new(table, 0, row, Label(o.name).c_str(), 160, 8,
                                 given ? m_request.values.Number(o.name) : o.lo, o.lo, scale_hi, step, step * 10,
                                 digits, scale_hi == o.hi, o.lo, o.hi, KorvaneFrontend::HelpLine(o).c_str(), nullptr);
  g_signal_connect(c.scale, "value-changed", G_CALLBACK(OnValue), &c);
  if (MayBeAutomatic(o)) {
    AddToggle(table, row, c, given);
    gimp_scale_entry_set_sensitive(c.scale, given);
  }
}

// A spin button per number: a point starts at the layer's centre, a
// rectangle as the whole layer, other lists at the middle of each range.
void Dialog::AddList(GtkTable* table, int row, Control& c) {
  const OptionDef& o = *c.option;
  const Image& photo = m_session.photo();
  const bool given = m_request.values.Has(o.name);
  std::vector<double> start;
  if (given) start = m_request.values.Numbers(o.name);
  else if (o.kind == OptionKind::kPoint) start = {photo.width / 2.0, photo.height / 2.0};
  else if (o.kind == OptionKind::kRect) start = {0.0, 0.0, 1.0 * photo.width, 1.0 * photo.height};
  else for (const auto& part : o.parts) start.push_back((part.lo + part.hi) / 2);
  c.parts_box = gtk_hbox_new(FALSE, 4);
  for (size_t i = 0; i < o.parts.size(); ++i) {
    const int digits = o.kind == OptionKind::kRect ? 0 : 1;
    GtkObject* adj = gtk_adjustment_new(start[i], o.parts[i].lo, o.parts[i].hi, 1, 10, 0);
    GtkWidget* spin = gtk_spin_button_new(GTK_ADJUSTMENT(adj), 1, digits);
    gtk_entry_set_width_chars(GTK_ENTRY(spin), 6);
    gimp_help_set_help_data(spin, (o.parts[i].name + " of " + KorvaneFrontend::HelpLine(o)).c_str(), nullptr);
    gtk_box_pack_start(GTK_BOX(c.parts_box), spin, FALSE, FALSE, 0);
    c.parts.push_back(GTK_ADJUSTMENT(adj));
    g_signal_connect(adj, "value-changed", G_CALLBACK(OnValue), &c);
  }
  gimp_table_attach_aligned(table, 0, row, Label(o.name).c_str(), 0.0, 0.5, c.parts_box, 2, FALSE);
  AddToggle(table, row, c, given);
  gtk_widget_set_sensitive(c.parts_box, given);
}

void Dialog::AddChoice(GtkTable* table, int row, Control& c) {
  const OptionDef& o = *c.option;
  std::vector<std::string> names;
  for (const std::string& choice : o.choices) names.push_back(Label(choice, ""));
  std::vector<const gchar*> labels;
  for (const std::string& n : names) labels.push_back(n.c_str());
  c.combo = gimp_int_combo_box_new_array(static_cast<gint>(labels.size()), labels.data());
  gimp_help_set_help_data(c.combo, o.help.c_str(), nullptr);
  gimp_table_attach_aligned(table, 0, row, Label(o.name).c_str(), 0.0, 0.5, c.combo, 2, FALSE);
  gimp_int_combo_box_connect(GIMP_INT_COMBO_BOX(c.combo), std::max(0, m_request.values.ChoiceIndex(o.name)),
                             G_CALLBACK(OnValue), &c);
}

// Layers and channels of the image and its selection for a gray input, the
// image's paths for flow lines and glints; "None" unless the input is needed.
void Dialog::AddItem(GtkTable* table, int row, Control& c) {
  const OptionDef& o = *c.option;
  const bool drawable = o.kind == OptionKind::kImage;
  GtkWidget* combo = drawable ? gimp_drawable_combo_box_new(OfThisImage, this)
                              : gimp_vectors_combo_box_new(OfThisImage, this);
  if (drawable) {
    gimp_int_combo_box_prepend(GIMP_INT_COMBO_BOX(combo), GIMP_INT_STORE_VALUE, gimp_image_get_selection(m_image),
                               GIMP_INT_STORE_LABEL, "Selection", -1);
  }
  if (!o.required) {
    gimp_int_combo_box_prepend(GIMP_INT_COMBO_BOX(combo), GIMP_INT_STORE_VALUE, -1, GIMP_INT_STORE_LABEL, "None", -1);
  }
  gimp_help_set_help_data(combo, o.help.c_str(), nullptr);
  gimp_table_attach_aligned(table, 0, row, Label(o.name).c_str(), 0.0, 0.5, combo, 2, FALSE);
  gimp_int_combo_box_connect(GIMP_INT_COMBO_BOX(combo), m_request.Item(o.name), G_CALLBACK(OnItem), &c);
}

GtkWidget* Dialog::BuildControls() {
  const std::vector<Param> params = ProcedureParams(m_request.values.cmd());
  GtkWidget* table = gtk_table_new(static_cast<guint>(params.size()), 4, FALSE);
  gtk_table_set_col_spacings(GTK_TABLE(table), 6);
  gtk_table_set_row_spacings(GTK_TABLE(table), 4);
  int row = 0;
  for (const Param& p : params) {
    // A list's count and numbers are one control.
    if (!p.option || p.type == GIMP_PDB_FLOATARRAY) continue;
    m_controls.push_back(std::make_unique<Control>());
    Control& c = *m_controls.back();
    c.dialog = this;
    c.option = p.option;
    switch (p.option->kind) {
      case OptionKind::kNumber:
      case OptionKind::kWhole:
        AddNumber(GTK_TABLE(table), row, c);
        break;
      case OptionKind::kChoice:
        AddChoice(GTK_TABLE(table), row, c);
        break;
      case OptionKind::kFlag:
        c.check = gtk_check_button_new_with_label(Label(p.option->name, "").c_str());
        gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(c.check), m_request.values.Flag(p.option->name));
        gimp_help_set_help_data(c.check, p.option->help.c_str(), nullptr);
        gtk_table_attach(GTK_TABLE(table), c.check, 0, 4, row, row + 1, GTK_FILL, GTK_FILL, 0, 0);
        g_signal_connect(c.check, "toggled", G_CALLBACK(OnValue), &c);
        break;
      case OptionKind::kImage:
      case OptionKind::kFlows:
      case OptionKind::kSparkles:
        AddItem(GTK_TABLE(table), row, c);
        break;
      default:
        AddList(GTK_TABLE(table), row, c);
        break;
    }
    ++row;
  }
  return table;
}

void Dialog::Prepare() {
  if (m_open_again) {
    m_problem = MissingInput(m_request);
    if (m_problem.empty()) m_problem = m_session.Open(m_request);
    m_open_again = false;
    m_render_again = true;
  }
  if (m_render_again && m_session.IsOpen()) {
    // A loop shows its chosen frame, or its first.
    const FrameChoice choice = FramesOf(m_request.values);
    m_problem = FrameProblem(choice);
    if (m_problem.empty()) m_problem = m_session.Render(m_request, std::max(0, choice.frame), choice.frames, m_frame);
    if (!m_problem.empty()) m_frame = Image();
    m_render_again = false;
  }
  gtk_label_set_text(GTK_LABEL(m_message), (m_refused.empty() ? m_problem : m_refused).c_str());
}

// The visible part of the layer: the render's colour with the layer's alpha,
// the photo itself outside a --roi render or when the render failed. The
// preview blends it with the original over the selection's soft edges.
void Dialog::Draw(GimpPreview* preview) {
  Prepare();
  gint px = 0, py = 0, pw = 0, ph = 0;
  gimp_preview_get_position(preview, &px, &py);
  gimp_preview_get_size(preview, &pw, &ph);
  gint32 fx = 0, fy = 0;
  FrameCorner(m_request.values, fx, fy);
  const Image& photo = m_session.photo();
  const int bpp = gimp_drawable_has_alpha(m_layer) ? 4 : 3;
  std::vector<guchar> buffer(static_cast<size_t>(pw) * ph * bpp, 0);
  for (gint y = 0; y < ph; ++y) {
    for (gint x = 0; x < pw; ++x) {
      const gint sx = px + x, sy = py + y;
      if (sx < 0 || sy < 0 || sx >= photo.width || sy >= photo.height) continue;
      const uint8_t* from = photo.at(sx, sy);
      const gint rx = sx - fx, ry = sy - fy;
      if (!m_frame.pixels.empty() && rx >= 0 && ry >= 0 && rx < m_frame.width && ry < m_frame.height) {
        from = m_frame.at(rx, ry);
      }
      guchar* to = &buffer[(static_cast<size_t>(y) * pw + x) * bpp];
      to[0] = from[2], to[1] = from[1], to[2] = from[0];
      if (bpp == 4) to[3] = photo.at(sx, sy)[3];
    }
  }
  gimp_preview_draw_buffer(preview, buffer.data(), pw * bpp);
}

bool Dialog::Run() {
  gimp_ui_init("korvane-gimp", FALSE);
  const std::string title = "Korvane " + MenuLabel(m_request.values.cmd());
  GtkWidget* dialog = gimp_dialog_new(title.c_str(), "korvane-gimp", nullptr, GtkDialogFlags(0),
                                      gimp_standard_help_func, ProcedureName(m_request.values.cmd()).c_str(),
                                      "_Cancel", GTK_RESPONSE_CANCEL, "_OK", GTK_RESPONSE_OK, nullptr);
  gtk_dialog_set_alternative_button_order(GTK_DIALOG(dialog), GTK_RESPONSE_OK, GTK_RESPONSE_CANCEL, -1);
  gimp_window_set_transient(GTK_WINDOW(dialog));

  GtkWidget* hbox = gtk_hbox_new(FALSE, 12);
  gtk_container_set_border_width(GTK_CONTAINER(hbox), 12);
  gtk_box_pack_start(GTK_BOX(gtk_dialog_get_content_area(GTK_DIALOG(dialog))), hbox, TRUE, TRUE, 0);
  GtkWidget* left = gtk_vbox_new(FALSE, 6);
  gtk_box_pack_start(GTK_BOX(hbox), left, TRUE, TRUE, 0);

  gtk_box_pack_start(GTK_BOX(hbox), BuildControls(), FALSE, FALSE, 0);

  m_preview = gimp_drawable_preview_new_from_drawable_id(m_layer);
  gtk_widget_set_size_request(gimp_preview_get_area(GIMP_PREVIEW(m_preview)), 400, 320);
  gtk_box_pack_start(GTK_BOX(left), m_preview, TRUE, TRUE, 0);
  m_message = gtk_label_new("");
  gtk_label_set_line_wrap(GTK_LABEL(m_message), TRUE);
  gtk_widget_set_size_request(m_message, 400, -1);
  gtk_box_pack_start(GTK_BOX(left), m_message, FALSE, FALSE, 0);
  g_signal_connect_swapped(m_preview, "invalidated", G_CALLBACK(OnInvalidated), this);

  gtk_widget_show_all(dialog);
  const bool ok = gimp_dialog_run(GIMP_DIALOG(dialog)) == GTK_RESPONSE_OK;
  gtk_widget_destroy(dialog);
  return ok;
}

}  // namespace

bool RunDialog(gint32 image, gint32 layer, Request& request) {
  Dialog dialog(image, layer, request);
  return dialog.Run();
}

}  // namespace KorvaneGimp
