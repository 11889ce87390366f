#include "PhotoCommand.h"

#include <chrono>
#include <filesystem>
#include <new>
#include <set>

#include "ToolSupport.h"

namespace KorvaneTool {

namespace {

double MsSince(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

void ReplaceAll(std::string& s, const std::string& from, const std::string& to) {
  for (size_t at = 0; (at = s.find(from, at)) != std::string::npos; at += to.size()) s.replace(at, from.size(), to);
}

// One photo: 0 when written, else an exit code (after printing why).
int OnePhoto(const PhotoIo& io, const std::string& input, const std::string& output, const RenderPhoto& render) {
  const auto t0 = std::chrono::steady_clock::now();
  std::string error;
  Image photo;
  if (!LoadImage(input, photo, error)) return Fail(error);
  Rendered out;
  if (int rc = render(photo, out)) return rc;
  if (!out.image.meta) out.image.meta = photo.meta;
  SaveOptions save;
  save.quality = io.quality;
  save.chroma_444 = io.chroma == "444";
  save.strip = io.strip;
  save.format = io.format.empty() ? "png" : io.format;
  if (output != "-") {
    const std::filesystem::path folder = std::filesystem::path(output).parent_path();
    std::error_code ec;
    if (!folder.empty() && !std::filesystem::exists(folder, ec)) {
      std::filesystem::create_directories(folder, ec);
      if (ec) return Fail("cannot create the folder " + folder.string() + ": " + ec.message());
    }
  }
  if (!SaveImage(output, out.image, save, error)) return Fail(error);
  Note("wrote %s (%s%s%dx%d, %.0f ms, render %.0f ms)\n", output == "-" ? "standard output" : output.c_str(),
       out.summary.c_str(), out.summary.empty() ? "" : ", ", out.image.width, out.image.height, MsSince(t0),
       out.render_ms);
  return 0;
}

}  // namespace

void AddPhotoOptions(OptionTable& t, PhotoIo& io, const std::string& chroma_default) {
  io.chroma = chroma_default;
  const std::string formats = WritableFormatList();
  t.List("photos", io.inputs,
         "Photos to read: JPEG, PNG, WebP, TIFF, GIF, HEIF/AVIF or JPEG XL; '-' reads standard input");
  t.Text("-o,--output", io.output,
         "File to write (" + formats + "; '-' writes standard output). With several photos use {name} "
         "(the photo's name without extension) and {ext} (its extension), e.g. out/{name}-fx.jpg; "
         "missing folders are created",
         true);
  t.Number("--quality", io.quality, 1, 100, "", "Quality of lossy formats (JPEG, WebP, HEIF, AVIF, JPEG XL)");
  t.Choice("--chroma", io.chroma, {"420", "444"},
           "JPEG colour resolution: 444 keeps one-pixel colour detail, 420 halves it for smaller files");
  t.Flag("--strip", io.strip, "Write no metadata (by default EXIF, XMP and the colour profile are kept)");
  t.Text("--format", io.format, "With -o -: the file type to write (" + formats + "; default .png)");
  t.app().get_option("--format")->check(
      CLI::Validator([](std::string& text) -> std::string {
        return FormatOf(text).empty() ? "'" + text + "' is not a format the tool writes" : std::string();
      }, ""))->type_name("FORMAT");
  t.Flag("-q,--quiet", io.quiet, "Print nothing on success");
}

std::string OutputName(const std::string& pattern, const std::string& input) {
  const std::filesystem::path p(input == "-" ? "stdin" : input);
  std::string ext = p.extension().string();
  if (!ext.empty()) ext.erase(0, 1);
  std::string name = pattern;
  ReplaceAll(name, "{name}", p.stem().string());
  ReplaceAll(name, "{ext}", ext);
  return name;
}

int RunPhotos(const PhotoIo& io, const std::vector<std::string>& others, const RenderPhoto& render) {
  SetQuiet(io.quiet);
  SetStdoutIsData(io.output == "-");
  const bool pattern = io.output.find("{name}") != std::string::npos || io.output.find("{ext}") != std::string::npos;
  if (io.inputs.size() > 1 && !pattern) {
    return Usage("with " + std::to_string(io.inputs.size()) +
                 " photos, -o needs {name} so each gets its own file (e.g. out/{name}-fx.jpg)");
  }
  if (io.output == "-" && io.inputs.size() > 1) return Usage("-o - writes one photo; give one");
  if (std::count(io.inputs.begin(), io.inputs.end(), std::string("-")) > 1) {
    return Usage("standard input ('-') can be read once");
  }
  std::error_code ec;
  if (std::filesystem::is_directory(io.output, ec)) return Fail(io.output + ": is a folder; give a file name");
  if (io.output != "-") {
    const std::string ext = Extension(OutputName(io.output, io.inputs.front()));
    if (FormatOf(ext).empty() && !(pattern && io.output.find("{ext}") != std::string::npos)) {
      return Usage("output " + io.output + ": unsupported type '" + ext + "' (use " + WritableFormatList() + ")");
    }
  }

  const auto t0 = std::chrono::steady_clock::now();
  int failed = 0;
  std::set<std::string> written;
  Progress progress("rendering", static_cast<int>(io.inputs.size()));
  for (size_t i = 0; i < io.inputs.size(); ++i) {
    const std::string& input = io.inputs[i];
    const std::string output = OutputName(io.output, input);
    int rc = 0;
    // No output may replace an input: this photo, another photo of the batch
    // (it may not have been read yet), a mask or a guide.
    std::vector<std::string> inputs(io.inputs);
    inputs.insert(inputs.end(), others.begin(), others.end());
    for (const std::string& in : inputs) {
      if (rc == 0 && in != "-" && output != "-") {
        std::error_code ec;
        if (std::filesystem::exists(output, ec) && std::filesystem::equivalent(output, in, ec)) {
          rc = Fail("output " + output + " is the input file " + in + "; choose another name");
        }
      }
    }
    if (rc == 0 && output != "-" && !written.insert(std::filesystem::weakly_canonical(output).string()).second) {
      rc = Fail(input + ": output " + output + " was already written by another photo of this batch");
    }
    if (rc == 0) {
      try {
        rc = OnePhoto(io, input, output, render);
      } catch (const std::bad_alloc&) {
        rc = Fail(input + ": out of memory");
      }
    }
    failed += rc != 0;
    progress.Step(static_cast<int>(i + 1));
  }
  if (io.inputs.size() > 1) {
    Note("%zu photos in %.1f s%s\n", io.inputs.size(), MsSince(t0) / 1000.0,
         failed ? (", " + std::to_string(failed) + " failed").c_str() : "");
  }
  return failed ? kExitFailure : 0;
}

}  // namespace KorvaneTool
