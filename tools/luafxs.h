// Shared pieces of the luafxs verbs: exit codes, the one-line error format,
// the safe way to load a file, the plot writer that plot and demo share.
// Every verb calls the public API only; no format logic lives here.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <luAnaf/luAfxsFileCheck.h>
#include <luAnaf/luAfxsSection.h>
#include <luAnaf/luAnaf.h>
#include <nlohmann/json.hpp>

namespace luafxs {

constexpr int kExitOk = 0;
constexpr int kExitBad = 1;    // bad or damaged input, or an operation that failed
constexpr int kExitUsage = 2;  // wrong command line

// "luafxs: <file>: <what>" on standard error, both shown printable.
void error(const std::string& file, const std::string& what);
// "luafxs: <file>: warning: <what>" on standard error.
void warning(const std::string& file, const std::string& what);

// The text as a terminal shows it safely: valid UTF-8 stays as it is, while
// control characters (C0, DEL, C1) and bytes that are no UTF-8 become \xNN,
// so that a message quoting a file's bytes never moves the cursor, sends an
// escape sequence or breaks its line.
std::string printable(std::string_view text);
// A cell of an input quoted in a message: printable, and cut after
// `longest` bytes (at a character's start) with "..." behind.
std::string quotedCell(std::string_view cell, size_t longest = 64);

std::wstring widen(const std::string& path);
std::string narrow(const std::wstring& text);
std::string hex32(uint64_t value);
// "points segments normals" for a field mask.
std::string maskNames(uint32_t mask);
nlohmann::json maskNameList(uint32_t mask);
// A field list such as "points,normals,results" as a mask; false and a
// message for an unknown name.
bool parseFields(const std::string& list, uint32_t& mask, std::string& bad);

// Whether standard output / error is a terminal (no colour, no progress bar
// otherwise).
bool stdoutIsTerminal();
bool stderrIsTerminal();

// Why an inspection could not open its file ("cannot be opened for reading",
// "is a directory, not a file", ...).
std::string openProblem(const LuAfxsInspection& in);
// The keys info --json and validate --json share: file, opened, error, size,
// clean, loadable, records {total, cameras, plane, planeSubset, results},
// planeSubsets, problems.
nlohmann::json inspectionJson(const std::string& file, const LuAfxsInspection& in);

// Checks a file with the inspection walk and prints what is wrong with it
// (one "luafxs: <file>: ..." line per problem). With strict, any problem
// refuses the file; otherwise only problems that would make a load fail
// (the others are printed as warnings). True when the file may be loaded.
bool checkBeforeLoad(const std::string& path, const LuAfxsInspection& in, bool strict);

// A file loaded through the reader after it passed checkBeforeLoad. The
// link outlives the set (declaration order).
struct LoadedFile {
  std::string path;
  LuAfxsInspection inspection;
  std::unique_ptr<LuAfxsUserLink> link;
  std::unique_ptr<LuAfxsUserDataSet> set;
  std::vector<const LuAfxsPlane*> planes;  // load order
  ~LoadedFile();
};
// Inspects, refuses a damaged file (printing why), then loads every field
// group in mask. Null on failure; the file is never handed to the load when
// the inspection says the load would fail, so it is never deleted.
std::unique_ptr<LoadedFile> loadChecked(const std::string& path, uint32_t mask, bool strict);

// ---- Outputs (outputs.cpp) ------------------------------------------------------
// False, with "luafxs: <output>: <why>", when output may not be written: it
// is one of the inputs (as a file, through links too), a directory, a FIFO
// or other special file, read-only, or its directory is missing.
bool outputAllowed(const std::string& output, const std::vector<std::string>& inputs);
bool isStandardOutput(const std::string& path);
std::string describe(const LuAfxsOutputProblem& problem);
// Writes text whole to path (a temporary beside it, renamed into place), or
// to standard output when path is empty or "-".
bool writeOutput(const std::string& path, const std::string& text, bool binary = false);
// The same with the text written by writeBody into the open stream (false
// when a write failed), so that a long output need never be held whole.
bool writeOutputWith(const std::string& path, bool binary,
                     const std::function<bool(std::FILE*)>& writeBody);
// Renames a written temporary into place; prints why not.
bool commitOutput(LuAfxsOutputFile& file, const std::string& shownPath);
// Flushes standard output at the end; false, with one message, when any
// write to it failed (a full disk, a closed pipe).
bool finishStandardOutput();
void noteStandardOutputFailure(int errnum);
// SIGINT, SIGTERM and SIGHUP remove the live temporaries, then end the
// program as the signal would; SIGPIPE is ignored (EPIPE is reported).
void installSignalHandlers();

// ---- Plot ------------------------------------------------------------------
struct PlotLayer {
  std::string label;         // legend text
  const LuAfxsPlane* plane;  // not owned
  size_t file = 0;           // which of the files given it comes from
};
// One plane of the drawing (a small multiple when there are several).
struct PlotPanel {
  std::string title;
  std::vector<PlotLayer> layers;
};
struct PlotOptions {
  bool normals = false;
  bool results = false;
  std::string title;
  std::string markers = "auto";  // on, off, or auto: on while few points are in view
  bool zoomOverlap = false;      // show where the first two layers overlap
  bool hasBox = false;           // show box = {u0, v0, u1, v1} (plot coordinates)
  double box[4] = {0, 0, 0, 0};
  bool colorByDistance = false;  // markers in the colour of their distance, with a colour bar
  bool markBlend = true;         // mark the blended stretch of the last file's layers
};
// An SVG of the layers seen along `normal`: each layer in its own colour and
// marker, segments as separate polylines, a legend and axes with ticks in the
// file's units, fitted to the data with equal scales.
std::string plotSvg(const std::vector<PlotLayer>& layers, const double normal[3],
                    const PlotOptions& options);
// The same with one panel per plane, all on the same scale.
std::string plotPanelsSvg(const std::vector<PlotPanel>& panels, const double normal[3],
                          const PlotOptions& options);

// ---- Meshes (mesh_file.cpp) ------------------------------------------------------
struct MeshData {
  std::vector<LuVec3> vertices;
  std::vector<uint32_t> faces;  // three vertex indices per triangle
};
// Reads the triangles of a PLY, STL or OBJ file; false with the reason.
// Where the reader runs in a process of its own, it may spend `cpuSeconds`
// of CPU time (0: 30 s plus 1 s per MiB of the file) before it is stopped.
bool readMesh(const std::string& path, MeshData& mesh, std::string& why, unsigned cpuSeconds = 0);

// ---- Verbs -----------------------------------------------------------------
struct InfoArgs {
  std::string file;
  bool json = false;
};
struct ValidateArgs {
  std::string file;
  bool json = false;
};
struct DumpArgs {
  std::string file;
  int64_t plane = -1;   // -1: every plane
  int64_t subset = -1;  // -1: every subset
  std::string fields;
  std::string format = "xyz";
  bool binary = false;
  std::string output;
};
struct UnifyArgs {
  std::string output;
  std::vector<std::string> inputs;
  bool blend = false;
  uint32_t xsId = 0;
  uint32_t loadMode = LU_AFXS_MASK_ALL;
  bool strict = false;  // warnings fail the run
};
struct RemoveArgs {
  std::string file;
  std::string fields;
};
struct PlotArgs {
  std::vector<std::string> files;
  int64_t plane = -1;
  std::string planes;  // "3,5,10-12": small multiples
  std::string output;
  bool normals = false;
  bool results = false;
  std::string markers = "auto";
  std::string zoom;     // "" or "overlap"
  std::string bbox;     // "u0,v0,u1,v1"
  std::string colorBy;  // "" or "distance"
};
struct ViewArgs {
  std::vector<std::string> files;
  std::string output = "view.html";
};
struct BatchArgs {
  std::string source;  // a list file or a folder
  unsigned workers = 1;
  std::string output;  // output folder of a folder's unify jobs
  bool blend = false;
  bool validate = false;
  bool json = false;
};
struct SliceArgs {
  std::string mesh;
  std::string output;
  uint32_t planes = 0;
  double spacing = 0;
  std::vector<double> normal{0, 0, 1};
  std::vector<double> origin;
  uint32_t subset = 1;
  double viewSplit = -1;     // degrees between the two partial scans; < 0: one full scan
  unsigned readSeconds = 0;  // the mesh reader's CPU time; 0: by the file's size
  bool json = false;
};
struct CompareArgs {
  std::string measured;
  std::string nominal;
  std::string output;
  bool json = false;
};
struct ImportArgs {
  std::string input;
  std::string output;
};
struct DemoArgs {
  std::string dir = "luafxs-demo";
};

int runInfo(const InfoArgs& args);
int runValidate(const ValidateArgs& args);
int runDump(const DumpArgs& args);
int runUnify(const UnifyArgs& args);
int runRemove(const RemoveArgs& args);
int runPlot(const PlotArgs& args);
int runView(const ViewArgs& args);
int runDemo(const DemoArgs& args);
int runBatch(const BatchArgs& args);
int runSlice(const SliceArgs& args);
int runCompare(const CompareArgs& args);
int runImport(const ImportArgs& args);

// The self-contained HTML viewer of the loaded files (view.cpp).
std::string viewHtml(const std::vector<const LoadedFile*>& files);

// The unification itself, shared by unify and demo: luAfxsUnifyFiles with
// the tool's messages. Fills the summary; false, after printing why, when
// the output was not written (it is then left as it was).
struct UnifySummary {
  uint64_t planesWritten = 0;
  uint64_t planesBlended = 0;
  uint64_t positionsSkipped = 0;
  std::vector<std::string> failures;  // error reports, early ends, positions left out
  std::vector<std::string> warnings;  // what was asked for and could not happen
};
struct UnifyOptions {
  bool blend = false;
  uint32_t xsId = 0;
  uint32_t loadMode = LU_AFXS_MASK_ALL;
  bool strict = true;     // any problem of an input refuses it
  bool progress = false;  // a progress bar on standard error
};
bool unifyFiles(const std::vector<std::string>& inputs, const std::vector<uint32_t>& ids,
                const std::string& output, const UnifyOptions& how, UnifySummary& summary);
// Prints the failures as one block on standard error: the count and the first few.
void printFailures(const std::string& output, const std::vector<std::string>& failures);

}  // namespace luafxs
