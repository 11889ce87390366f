// The option table of every command. Help texts say what an option does;
// ranges, units and defaults are fields of their own, and HelpLine() joins
// them, so no text repeats a default.
#include "OptionDef.h"

namespace KorvaneFrontend {

namespace {

using K = OptionKind;
using R = OptionRole;

// Builds one table entry with chained settings.
struct Opt {
  OptionDef s;
  Opt(std::string name, K kind, R role = R::kRender) {
    s.name = std::move(name);
    s.kind = kind;
    s.role = role;
  }
  Opt& Range(double lo, double hi, std::string unit = "") {
    s.lo = lo, s.hi = hi, s.unit = std::move(unit);
    return *this;
  }
  Opt& Default(std::string text) {
    s.default_text = std::move(text);
    return *this;
  }
  Opt& Absent(std::string text) {
    s.absent = std::move(text);
    return *this;
  }
  Opt& Help(std::string text) {
    s.help = std::move(text);
    return *this;
  }
  Opt& Unit(std::string unit) {
    s.unit = std::move(unit);
    return *this;
  }
  Opt& Parts(std::vector<OptionPart> parts) {
    s.parts = std::move(parts);
    return *this;
  }
  Opt& Short(std::string letter) {
    s.short_name = std::move(letter);
    return *this;
  }
  Opt& Required() {
    s.required = true;
    return *this;
  }
  Opt& NeedsLoop() {
    s.needs_loop = true;
    return *this;
  }
  operator OptionDef() const { return s; }
};

Opt Number(std::string name, double lo, double hi, std::string unit, std::string def, std::string help) {
  return Opt(std::move(name), K::kNumber).Range(lo, hi, std::move(unit)).Default(std::move(def)).Help(std::move(help));
}

Opt Whole(std::string name, double lo, double hi, std::string unit, std::string def, std::string help) {
  return Opt(std::move(name), K::kWhole).Range(lo, hi, std::move(unit)).Default(std::move(def)).Help(std::move(help));
}

Opt Choice(std::string name, std::vector<std::string> choices, std::string def, std::string help) {
  Opt o(std::move(name), K::kChoice);
  o.s.choices = std::move(choices);
  return o.Default(std::move(def)).Help(std::move(help));
}

// A built-in shape by name, or any image.
Opt Shape(std::string name, std::vector<std::string> shapes, std::string def, std::string help) {
  Opt o = Choice(std::move(name), std::move(shapes), std::move(def), std::move(help));
  o.s.or_image = true;
  return o;
}

Opt Flag(std::string name, std::string help) { return Opt(std::move(name), K::kFlag).Help(std::move(help)); }

// A gray input beside the photo (guide, mask, still region), the photo's size.
Opt GrayInput(std::string name, std::string help) {
  Opt o(std::move(name), K::kImage, R::kInput);
  o.s.gray = true;
  return o.Help(std::move(help));
}

Opt Roi() {
  return Opt("roi", K::kRect)
      .Parts({{"L", 0, 1e6}, {"T", 0, 1e6}, {"R", 0, 1e6}, {"B", 0, 1e6}})
      .Unit("pixels")
      .Help("Render only this rectangle of the result (right, bottom exclusive); it equals that part of the whole "
            "render");
}

const char kPhotoFormats[] = "JPEG, PNG, WebP, TIFF, GIF, HEIF/AVIF or JPEG XL";

std::string FormatList() {
  std::string list;
  for (const std::string& f : StillFormats()) list += (list.empty() ? "." : ", .") + f;
  return list;
}

// Every command begins with its photos and its output.
void AddPhotoAndOutput(std::vector<OptionDef>& t, bool animated) {
  t.push_back(Opt("photos", K::kPhotos, R::kPhoto)
                  .Required()
                  .Help(std::string("Photos to read: ") + kPhotoFormats + "; '-' reads standard input"));
  const std::string what = animated ? "Where to write: an image (" + FormatList() +
                                          ") for one frame; NAME.webp, NAME.gif or a folder of PNG frames for a loop"
                                    : "File to write (" + FormatList() + ")";
  t.push_back(Opt("output", K::kText, R::kWrite)
                  .Short("o")
                  .Help(what + "; '-' writes standard output. With several photos use {name} (the photo's name "
                               "without extension) and {ext} (its extension), e.g. out/{name}-fx.jpg; missing "
                               "folders are created"));
}

// The frames of a loop: 48 by default in every command. Where the picture
// moves only with a loop switch (twinkle, spin, sway, cycle-hue), a render
// with none on is one still frame unless --frames is given (FrameCount()).
void AddLoop(std::vector<OptionDef>& t, int min_frames) {
  bool switches = false;
  for (const OptionDef& o : t) switches = switches || o.needs_loop;
  std::string help = min_frames == 1 ? "Frames in one loop (1: a still)" : "Frames in one loop";
  if (switches) help += "; with no loop switch on, a still unless given";
  t.push_back(Opt("frames", K::kWhole, R::kLoop).Range(min_frames, 1000).Default("48").Help(help));
  t.push_back(Opt("frame", K::kWhole, R::kLoop)
                  .Range(0, 999)
                  .Absent("every frame")
                  .Help("Write only this frame of the loop (0 is the first), as a still image"));
  t.push_back(Opt("fps", K::kWhole, R::kWrite)
                  .Range(1, 100, "frames a second")
                  .Default("24")
                  .Help("Playback speed of a loop (GIF rounds a frame to hundredths of a second)"));
}

// How files are written: the same for every command.
void AddFileSettings(std::vector<OptionDef>& t, bool animated, const std::string& chroma) {
  Opt quality = Opt("quality", K::kWhole, R::kWrite).Range(1, 100);
  if (animated) {
    quality.Absent("92 for a still, 80 for a loop")
        .Help("Quality of lossy formats (JPEG, WebP, HEIF, AVIF, JPEG XL) and of an animated WebP (100: lossless)");
  } else {
    quality.Default("92").Help("Quality of lossy formats (JPEG, WebP, HEIF, AVIF, JPEG XL)");
  }
  t.push_back(quality);
  Opt c = Choice("chroma", {"420", "444"}, chroma,
                 "JPEG colour resolution: 444 keeps one-pixel colour detail, 420 halves it for smaller files");
  c.s.role = R::kWrite;
  t.push_back(c);
  Opt strip = Flag("strip", "Write no metadata (otherwise EXIF, XMP and the colour profile are kept)");
  strip.s.role = R::kWrite;
  t.push_back(strip);
  t.push_back(Opt("format", K::kText, R::kWrite)
                  .Absent(".png")
                  .Help("With -o -: the file type to write (" + FormatList() + (animated ? "; .webp or .gif for a loop" : "") +
                        ")"));
  Opt quiet = Flag("quiet", "Print nothing on success (no warnings, no progress)").Short("q");
  quiet.s.role = R::kWrite;
  t.push_back(quiet);
}

// A labelled sheet of every variant (glitch types, glow modes), instead of one.
void AddSheet(std::vector<OptionDef>& t, const std::string& flag, const std::string& what, int columns,
              int max_columns) {
  Opt sheet = Flag(flag, "Write " + what + " side by side, labelled, instead of one");
  sheet.s.role = R::kWrite;
  t.push_back(sheet);
  Opt width = Whole("tile-width", 16, 4096, "pixels", "240", "With --" + flag + ": shrink the photo to this width first");
  width.s.role = R::kWrite;
  t.push_back(width);
  Opt cols = Whole("columns", 1, max_columns, "", std::to_string(columns), "With --" + flag + ": tiles per row");
  cols.s.role = R::kWrite;
  t.push_back(cols);
}

// Inspection files of the light points bokeh and sparkle detect.
void AddPointsJson(std::vector<OptionDef>& t) {
  t.push_back(Opt("points-json", K::kText, R::kWrite)
                  .Help("Write the detected light points as JSON (positions on the 640-pixel detection copy); "
                        "-o is then optional"));
}

// Stretches a guide of a narrow range (a disparity map of 48..130) to 0..255.
Opt StretchGuide() {
  return Flag("stretch-guide",
              "Stretch the guide's values to the full 0..255 before use, so a guide of a narrow range still "
              "reaches a strong blur");
}

CommandDef FocusBlur() {
  CommandDef c{"focus-blur", "Blur a photo by depth: sharp at the focus value, softer further away", {}};
  auto& t = c.options;
  AddPhotoAndOutput(t, false);
  t.push_back(GrayInput("guide",
                        "Depth or focus guide, read as gray; one of another size is resized to the photo's. Without "
                        "it a radial guide is used: 255 in the centre falling to 0 in the corners, so the centre "
                        "stays sharp"));
  t.push_back(StretchGuide());
  t.push_back(Whole("level", 0, 100, "fiftieths of a percent of the shorter side", "50",
                    "Blur strength: the strong blur's sigma (100 = 2 %); the weak blur has a sixth of it"));
  t.push_back(Whole("focus", 0, 255, "", "255", "Guide value that is in focus"));
  t.push_back(Whole("range", 0, 255, "", "16",
                    "Guide distance still left sharp; beyond it pixels blend towards the weak and then the strong "
                    "blur (fully strong from a distance of 139)"));
  AddFileSettings(t, false, "420");
  return c;
}

CommandDef Glitch() {
  CommandDef c{"glitch", "Split the colour channels of a photo (eight types, or a sheet of all)", {}};
  auto& t = c.options;
  AddPhotoAndOutput(t, false);
  t.push_back(Whole("type", 0, 7, "", "0",
                    "0 blue/green split, 1 blue vs green+red, 2 green/red split, 3 green vs blue+red, "
                    "4 red vs blue+green, 5 blue/red split, 6 three channels on a circle, 7 blue/red opposed on a "
                    "circle"));
  t.push_back(Whole("shift-x", -100, 100, "thousandths of the width", "30", "Horizontal shift of types 0-5"));
  t.push_back(Whole("shift-y", -100, 100, "thousandths of the width", "0", "Vertical shift of types 0-5"));
  t.push_back(Whole("radius", 0, 100, "thousandths of the width", "40", "Circle radius of types 6 and 7"));
  t.push_back(Number("rotation", -360, 360, "degrees", "0",
                     "Turn of the circle of types 6 and 7 (applied in steps of 1.8 degrees)"));
  AddSheet(t, "type-sheet", "all eight types", 4, 8);
  // One-pixel colour fringes are the point: JPEG keeps full colour resolution.
  AddFileSettings(t, false, "444");
  return c;
}

CommandDef Glow() {
  CommandDef c{"glow", "Make the bright parts of a photo glow (29 blend modes, or a sheet of all)", {}};
  auto& t = c.options;
  AddPhotoAndOutput(t, false);
  // The defaults were chosen by rendering ordinary photos (a white cup on
  // brown wood, a launch pad at dusk, a portrait): a threshold of 200 leaves
  // warm mid-tones such as wood alone instead of turning them orange-red, and
  // 0.35 lets a white rim glow without burning it to pure white.
  t.push_back(Number("intensity", 0, 1, "", "0.35", "Strength of the glow"));
  t.push_back(Number("contrast", 1, 3, "", "2", "Tone curve of the glow: 2 neutral, lower harder, higher softer"));
  t.push_back(Opt("radius", K::kNumber)
                  .Range(0, 8192, "pixels")
                  .Absent("1.5 % of the longer side")
                  .Help("Blur radius, at most an eighth of the photo's longer side"));
  t.push_back(Whole("threshold", -255, 255, "", "200",
                    "Brightness 0..255 a channel must exceed to glow (negative: everything glows)"));
  t.push_back(Number("saturation", -1, 1, "", "0", "Saturation change of the glow"));
  t.push_back(Number("tint", 0, 100, "", "0", "How strongly the glow takes the colour --hue (above 1 extrapolates)"));
  t.push_back(Number("hue", 0, 1, "turns", "0", "Hue of the tint (0 red, 0.17 yellow, 0.33 green, 0.67 blue)"));
  t.push_back(Number("brightness", 0, 1, "", "1", "Final brightness of the glow (0: no glow)"));
  t.push_back(Number("opacity", 0, 1, "", "1", "Opacity of the glow layer"));
  Opt blend = Choice("blend",
                     {"normal", "darken", "multiply", "linear-burn", "lighten", "screen", "linear-dodge", "overlay",
                      "linear-light", "difference", "exclusion", "hue", "saturation", "luminosity",
                      "soft-light-pegtop", "hard-light", "soft-light", "color-burn", "color-dodge", "vivid-light",
                      "pin-light", "hard-mix", "reflect", "addition", "subtraction", "divide", "darker-color",
                      "lighter-color", "normal-alt"},
                     "screen", "Blend mode of the glow over the photo, by name or number");
  blend.s.choice_numbers = true;
  blend.s.choice_noun = "blend mode";
  t.push_back(blend);
  t.push_back(GrayInput("mask", "Gray image (resized to the photo's size): where it is dark, nothing glows"));
  t.push_back(Roi());
  AddSheet(t, "blend-sheet", "every blend mode", 6, 29);
  AddFileSettings(t, false, "420");
  return c;
}

CommandDef LightRays() {
  CommandDef c{"light-rays", "Rays of light from the bright parts of a photo (radial or directional; stills or loops)",
                {}};
  auto& t = c.options;
  AddPhotoAndOutput(t, true);
  t.push_back(Choice("mode", {"radial", "directional"}, "radial",
                     "Rays fan out from --center, or all run along --direction"));
  t.push_back(Opt("center", K::kPoint)
                  .Parts({{"X", -1e6, 1e6}, {"Y", -1e6, 1e6}})
                  .Unit("pixels")
                  .Absent("the photo's brightest compact highlight")
                  .Help("Where radial rays start (may lie up to half the photo outside it)"));
  t.push_back(Number("direction", -360, 360, "degrees", "270",
                     "Where directional rays run: 0 right, 90 up, 270 down"));
  t.push_back(Opt("length", K::kNumber)
                  .Range(0, 1e6, "pixels")
                  .Absent("a quarter of the longer side")
                  .Help("How far light travels, at most the photo's longer side"));
  t.push_back(Number("radius", 0, 1e6, "pixels", "0",
                     "Radial: only highlights this close to the centre shine (0: all)"));
  t.push_back(Opt("threshold", K::kNumber)
                  .Range(0, 255)
                  .Absent("from the photo: about its brightest 2 % shines, within 160..250")
                  .Help("Lightness a pixel needs to shine (255: only white)"));
  t.push_back(Opt("softness", K::kNumber)
                  .Range(0, 1e6, "pixels")
                  .Absent("0.3 % of the longer side")
                  .Help("Softening of the rays, at most a 32nd of the longer side"));
  t.push_back(Opt("strength", K::kNumber)
                  .Range(0, 1)
                  .Absent("the most, up to 1, that turns at most 3 % more of the photo near-white")
                  .Help("How much of the rays is added to the photo"));
  t.push_back(Number("brightness", 0, 1, "", "0.5",
                     "Brightness of the rays: 0 as averaged, 1 up to 16 times brighter"));
  t.push_back(Number("saturation", -1, 1, "", "0",
                     "Saturation of the rays: -1 white light, 0 the sources' colour, 1 richer"));
  t.push_back(Number("hue-shift", -1, 1, "turns", "0", "Turn of the rays' hue"));
  t.push_back(Opt("lampshade", K::kNumbers)
                  .Parts({{"ANGLE", -360, 360}, {"SPREAD", 0, 180}, {"SOFTNESS", 0, 360}})
                  .Unit("degrees")
                  .Help("Radial rays keep to a cone pointing at ANGLE (0 right, 90 up), SPREAD either side, its edge "
                        "fading over SOFTNESS"));
  t.push_back(GrayInput("mask", "Gray image (resized to the photo's size): where it is dark, nothing shines"));
  t.push_back(Roi());
  t.push_back(Flag("sway", "The beams sway over the loop").NeedsLoop());
  t.push_back(Flag("cycle-hue", "The rays' hue turns once around over the loop").NeedsLoop());
  AddLoop(t, 1);
  AddFileSettings(t, true, "420");
  return c;
}

CommandDef Bokeh() {
  CommandDef c{"bokeh", "Out-of-focus light discs over a blurred background, still or twinkling loop", {}};
  auto& t = c.options;
  AddPhotoAndOutput(t, true);
  t.push_back(GrayInput("guide",
                        "Depth guide, read as gray and resized to the photo's size: values near --focus stay sharp, "
                        "discs grow with the distance from it. Without it a radial guide keeps the centre sharp, as "
                        "in focus-blur"));
  t.push_back(StretchGuide());
  t.push_back(Shape("shape", {"circle", "hexagon", "octagon", "heart", "star"}, "circle", "Disc shape"));
  t.push_back(Number("amount", 0, 1, "", "0.8", "Fraction of the light points that get a disc"));
  t.push_back(Number("size-blend", 0, 1, "", "0", "Disc size from 1x (0) to 1.5x (1)"));
  t.push_back(Number("rotation", -360, 360, "degrees", "0", "Turn of the shape"));
  t.push_back(Number("saturation", -1, 1, "", "0", "Colour strength of the discs"));
  t.push_back(Number("hue-shift", -1, 1, "turns", "0", "Turn of the discs' hue"));
  t.push_back(Choice("color", {"dominant", "photo", "random"}, "photo",
                     "Disc colour: the photo's dominant hue, the photo's colour at each point, or random hues"));
  t.push_back(Whole("quality-mode", 0, 3, "", "1",
                    "0 light map at full size; 1 reduced for large photos; 2 and 3 also place discs on whole pixels"));
  t.push_back(Whole("level", 0, 100, "fiftieths of a percent of the shorter side", "100",
                    "Background blur, as focus-blur's --level"));
  t.push_back(Whole("focus", 0, 255, "", "230", "Guide value that is in focus"));
  t.push_back(Whole("range", 0, 255, "", "51", "Guide distance still left sharp"));
  t.push_back(Flag("twinkle", "The points light up and fade over the loop").NeedsLoop());
  t.push_back(Flag("cycle-hue", "The discs' hue turns once around over the loop").NeedsLoop());
  t.push_back(Roi());
  AddLoop(t, 1);
  AddFileSettings(t, true, "420");
  AddPointsJson(t);
  t.push_back(Opt("points-overlay", K::kText, R::kWrite)
                  .Help("Write the photo with a ring around every detected light point; -o is then optional"));
  return c;
}

CommandDef Sparkle() {
  CommandDef c{"sparkle", "Star-like glints on bright spots and placed points, still or spinning, twinkling loop", {}};
  auto& t = c.options;
  AddPhotoAndOutput(t, true);
  t.push_back(Shape("shape", {"star4", "star6", "star8", "cross"}, "star4", "Glint shape at the bright spots"));
  t.push_back(Opt("manual", K::kSparkles, R::kInput)
                  .Help("Placed glints: JSON {\"sparkles\": [{\"x\": X, \"y\": Y, \"scale\": S}, ...]} in photo "
                        "pixels, scale 0..6 (1 = 3% of the longer side at --size 1)"));
  t.push_back(Shape("manual-shape", {"star4", "star6", "star8", "cross"}, "star6",
                    "Shape of the placed glints (an image must be 200x200)"));
  t.push_back(Number("amount", 0, 1, "", "1", "Fraction of the bright spots that get a glint"));
  t.push_back(Number("size", 0.05, 6, "", "2", "Glint size: at 1 the glints span 1% to 3% of the longer side"));
  t.push_back(Number("rotation", -360, 360, "degrees", "0", "Turn of the glints (clockwise)"));
  t.push_back(Number("saturation", -1, 1, "", "0",
                     "Colour change of the glints' light (-1 grey, 1 twice as vivid)"));
  t.push_back(Number("brightness", -1, 1, "", "0", "Brightness change of the glints (-1 dark, 1 twice as bright)"));
  t.push_back(Choice("color", {"white", "photo", "random"}, "white",
                     "Glint colour: white light, the photo's colour at each glint, or a random hue per glint"));
  t.push_back(Opt("quality-mode", K::kWhole)
                  .Range(0, 3)
                  .Absent("2 for a still, 1 for a loop")
                  .Help("0 full-size light map; 1 reduced for large photos; 2 and 3 place glints on whole pixels "
                        "at a fixed brightness each (every glint shows)"));
  t.push_back(Flag("spin", "The glints turn once around over the loop").NeedsLoop());
  t.push_back(Flag("twinkle", "Each glint flashes on quickly and fades slowly once over the loop").NeedsLoop());
  t.push_back(Roi());
  AddLoop(t, 1);
  AddFileSettings(t, true, "420");
  AddPointsJson(t);
  return c;
}

CommandDef Animate() {
  CommandDef c{"animate", "Turn a photo and flow lines into a seamless loop (WebP, GIF or PNG frames)", {}};
  auto& t = c.options;
  AddPhotoAndOutput(t, true);
  t.push_back(Opt("flows", K::kFlows, R::kInput)
                  .Required()
                  .Help("JSON file of flow lines in image pixels: {\"flows\": [{\"type\": \"path\", \"points\": "
                        "[[x, y], ...]}, ...]}; types path, stroke (moves along the line) and anchor (holds a "
                        "point)"));
  t.push_back(GrayInput("still",
                        "Mask image (resized to the photo's size): white parts never move. Without it nothing is "
                        "held still and motion spreads to the corners of the photo"));
  t.push_back(Whole("loop-mode", 0, 2, "", "2",
                    "2 seamless loop (cross-fades two phases), 1 half-step blend, 0 plain drift"));
  AddLoop(t, 2);
  AddFileSettings(t, true, "420");
  return c;
}

CommandDef Disperse() {
  CommandDef c{"disperse", "Crumble the masked subject of a photo into drifting particles (WebP, GIF or PNG frames)",
                {}};
  auto& t = c.options;
  AddPhotoAndOutput(t, true);
  t.push_back(
      GrayInput("mask", "Mask image (resized to the photo's size): white parts are the subject that crumbles")
          .Required());
  t.push_back(Number("direction", -360, 360, "degrees", "0", "Wind direction: 0 right, 90 up, 180 left"));
  t.push_back(Number("spread", 0, 180, "degrees", "40",
                     "How far either side of the wind particles may fly (180: every way)"));
  t.push_back(Number("distance", 0, 1, "image diagonals", "0.3", "How far a particle flies"));
  t.push_back(Number("size", 0.5, 32, "pixels", "1.5", "Particle radius"));
  t.push_back(Number("density", 0, 1, "", "0.5", "Share of the subject's pixels that become particles"));
  t.push_back(Number("width", 0, 1, "", "0.3",
                     "How much of the subject crumbles at once: 0 a sharp front, 1 everywhere"));
  t.push_back(Number("fade", 0, 1, "", "1", "How far particles fade and shrink by the end of their flight"));
  t.push_back(Number("turbulence", 0, 1, "", "0.3", "How much the particles curl on their way"));
  t.push_back(Whole("seed", 0, 4294967295.0, "", "1", "Seed of the particles and the crumbling order"));
  t.push_back(Flag("loop", "Crumble over the first half and reassemble over the second, so the clip loops"));
  AddLoop(t, 1);
  AddFileSettings(t, true, "420");
  return c;
}

}  // namespace

const std::vector<std::string>& StillFormats() {
  static const std::vector<std::string> formats = {"jpg", "png", "webp", "tif", "heic", "avif", "jxl"};
  return formats;
}

const std::vector<CommandDef>& Commands() {
  static const std::vector<CommandDef> commands = {Animate(), Bokeh(),     Disperse(), FocusBlur(),
                                                    Glitch(),  Glow(),      LightRays(), Sparkle()};
  return commands;
}

}  // namespace KorvaneFrontend
