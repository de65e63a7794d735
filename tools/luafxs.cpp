// luafxs: look at, dump, check, unify and plot cross-section files. A thin
// main that parses the command line and hands each verb to its function.
#include <fmt/format.h>
#include <CLI/CLI.hpp>
#include <system_error>

#include "luafxs.h"

namespace {

constexpr const char* kVersion = "1.0.0";

std::string example(const std::string& text) { return "\nExample:\n  " + text + "\n"; }

// The first word that is no option, when it names no verb: "luafxs infoo x".
std::string unknownVerb(const CLI::App& app, int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    std::string word = argv[i];
    if (word.empty() || word[0] == '-') continue;
    for (const CLI::App* verb : app.get_subcommands({}))
      if (verb->get_name() == word) return "";
    return word;
  }
  return "";
}

std::string verbNames(const CLI::App& app) {
  std::string out;
  for (const CLI::App* verb : app.get_subcommands({}))
    out += (out.empty() ? "" : ", ") + verb->get_name();
  return out;
}

int run(int argc, char** argv);

}  // namespace

int main(int argc, char** argv) {
  luafxs::installSignalHandlers();
  int code = run(argc, argv);
  if (!luafxs::finishStandardOutput()) return luafxs::kExitBad;
  return code;
}

namespace {

int run(int argc, char** argv) {
  using namespace luafxs;
  CLI::App app{"luafxs: look at, dump, check, unify and plot luAnaf cross-section files (.afxs)",
               "luafxs"};
  app.set_version_flag("--version", std::string("luafxs ") + kVersion);
  app.require_subcommand(1);
  app.footer(
      "Exit codes: 0 ok, 1 bad or damaged input (or a failed operation), 2 usage.\n"
      "Run 'luafxs VERB --help' for the options of a verb.");

  InfoArgs info;
  auto* infoCmd = app.add_subcommand("info",
                                     "Header, cameras, counts and field groups of a file "
                                     "(reads the index only)");
  infoCmd->add_option("FILE", info.file, "the .afxs file")->required();
  infoCmd->add_flag("--json", info.json, "print one JSON object (see docs/luafxs.md)");
  infoCmd->footer(example("luafxs info scan.afxs --json"));

  ValidateArgs validate;
  auto* validateCmd = app.add_subcommand(
      "validate", "Deep check of a file; exit 0 clean, 1 damaged, 2 usage. Never changes the file");
  validateCmd->add_option("FILE", validate.file, "the .afxs file")->required();
  validateCmd->add_flag("--json", validate.json, "print one JSON object");
  validateCmd->footer(example("luafxs validate scan.afxs"));

  DumpArgs dump;
  auto* dumpCmd = app.add_subcommand("dump", "The points of a file as xyz, csv, ply or json");
  dumpCmd->add_option("FILE", dump.file, "the .afxs file")->required();
  const CLI::Range id32(int64_t{0}, int64_t{0xFFFFFFFF}, "a number from 0 to 4294967295");
  dumpCmd->add_option("--plane", dump.plane, "only this plane number")->check(id32);
  dumpCmd->add_option("--subset", dump.subset, "only this subset number")->check(id32);
  dumpCmd->add_option("--fields", dump.fields,
                      "comma-separated: points,normals,segments,aux,results,distances "
                      "(default: all the file holds; points are always dumped)");
  dumpCmd->add_option("--format", dump.format, "xyz (default), csv, ply, ply-binary or json")
      ->check(CLI::IsMember({"xyz", "csv", "ply", "ply-binary", "json"}));
  dumpCmd->add_flag("--binary", dump.binary, "with --format ply: binary little-endian PLY");
  dumpCmd->add_option("-o,--output", dump.output, "write here instead of standard output");
  dumpCmd->footer(example("luafxs dump scan.afxs --plane 3 --format ply -o plane3.ply"));

  UnifyArgs unify;
  auto* unifyCmd =
      app.add_subcommand("unify", "Unify the data sets of one cross-section into one output file");
  unifyCmd->add_option("-o,--output", unify.output, "the output .afxs file")->required();
  unifyCmd
      ->add_option("INPUTS", unify.inputs,
                   "input files, each optionally followed by :ID, the subset id its planes "
                   "are written under (default: they keep their own)")
      ->required();
  unifyCmd->add_flag("--blend", unify.blend, "blend overlapping subsets of a plane into one");
  unifyCmd->add_option("--xs-id", unify.xsId, "the cross-section id (default 0)");
  unifyCmd->add_option("--load-mode", unify.loadMode,
                       "field mask the planes are loaded with, 1 to 63 with points (1) in it "
                       "(default 63: all)");
  unifyCmd->add_flag("--strict", unify.strict,
                     "exit 1 when a warning says that something asked for could not happen");
  unifyCmd->footer(
      example("luafxs unify --blend -o unified.afxs left.afxs:1 right.afxs:2") +
      "\nAdding data sets to, or removing them from, an earlier unification needs the\n"
      "registry of that unification, which lives in the memory of the process that made\n"
      "it. Separate luafxs runs do not share it, so there are no 'add' or 'remove-sets'\n"
      "verbs: run unify again with the full list of inputs.\n");

  RemoveArgs remove;
  auto* removeCmd = app.add_subcommand(
      "remove",
      "Remove field groups from a file by rewriting it (result points and distances "
      "always go too)");
  removeCmd->add_option("FILE", remove.file, "the .afxs file (rewritten in place)")->required();
  removeCmd
      ->add_option("--fields", remove.fields,
                   "comma-separated groups to remove: normals,segments,aux,results,distances "
                   "(points may not be removed)")
      ->required();
  removeCmd->footer(example("luafxs remove scan.afxs --fields normals"));

  PlotArgs plot;
  auto* plotCmd = app.add_subcommand("plot", "An SVG of one plane seen along the header's normal");
  plotCmd->add_option("FILES", plot.files, "one or more .afxs files, drawn on one plot")
      ->required();
  plotCmd->add_option("--plane", plot.plane, "plane number (default: the first of the first file)")
      ->check(id32);
  plotCmd->add_option("-o,--output", plot.output, "write the SVG here instead of standard output");
  plotCmd->add_flag("--normals", plot.normals, "draw the normals");
  plotCmd->add_flag("--results", plot.results, "draw the result points");
  plotCmd
      ->add_option("--planes", plot.planes,
                   "several planes side by side on one scale, e.g. 3,5,10-12")
      ->excludes("--plane");
  plotCmd
      ->add_option("--markers", plot.markers,
                   "point markers: auto (while few points are in "
                   "view), on, off")
      ->check(CLI::IsMember({"auto", "on", "off"}));
  plotCmd->add_option("--zoom", plot.zoom, "overlap: show where the first two layers overlap")
      ->check(CLI::IsMember({"overlap"}));
  plotCmd->add_option("--bbox", plot.bbox, "show only U0,V0,U1,V1 (plot coordinates)");
  plotCmd->add_option("--color-by", plot.colorBy, "distance: markers coloured by distance")
      ->check(CLI::IsMember({"distance"}));
  plotCmd->footer(
      example("luafxs plot left.afxs right.afxs unified.afxs --plane 20 -o cmp.svg") +
      "\nList a unified file after its inputs: its points that none of the inputs holds\n"
      "are marked as the blended stretch.\n");

  ViewArgs view;
  auto* viewCmd = app.add_subcommand(
      "view", "One self-contained HTML page to explore the planes of files in a browser");
  viewCmd->add_option("FILES", view.files, "one or more .afxs files")->required();
  viewCmd->add_option("-o,--output", view.output,
                      "the HTML file (default: view.html; - for standard output)");
  viewCmd->footer(example("luafxs view left.afxs right.afxs unified.afxs -o view.html"));

  DemoArgs demo;
  auto* demoCmd = app.add_subcommand(
      "demo", "Synthesise two overlapping scans, unify them with blending, plot before and after");
  demoCmd->add_option("DIR", demo.dir, "output folder (default: luafxs-demo)");
  demoCmd->footer(example("luafxs demo /tmp/demo"));

  BatchArgs batch;
  auto* batchCmd = app.add_subcommand(
      "batch",
      "Run many unify, validate, slice and compare jobs from a list file or a folder, N at a time");
  batchCmd
      ->add_option("SOURCE", batch.source,
                   "a list file (one job per line: 'unify -o OUT IN...', 'validate FILE', "
                   "'slice MESH -o OUT --planes N' or 'compare MEASURED NOMINAL -o OUT', as on the "
                   "command line) or a folder (one unify job per subfolder of .afxs files)")
      ->required();
  batchCmd->add_option("-j,--jobs", batch.workers, "worker processes at once (default 1)");
  batchCmd->add_option("-o,--output", batch.output,
                       "for a folder: the folder the unified files go to (SUBFOLDER.afxs)");
  batchCmd->add_flag("--blend", batch.blend,
                     "for a folder: unify with blending, inputs numbered 1, 2, ... by name");
  batchCmd->add_flag("--validate", batch.validate,
                     "for a folder: validate every .afxs file instead of unifying");
  batchCmd->add_flag("--json", batch.json, "the summary as JSON, with every job's output");
  batchCmd->footer(
      example("luafxs batch scans/ -o unified/ -j 4\n  luafxs batch jobs.txt -j 2 --json"));

  SliceArgs slice;
  auto* sliceCmd = app.add_subcommand(
      "slice", "Cut a triangle mesh (PLY, STL, OBJ) with parallel planes into a new file");
  sliceCmd->add_option("MESH", slice.mesh, "the mesh file")->required();
  sliceCmd->add_option("-o,--output", slice.output, "the output .afxs file")->required();
  sliceCmd->add_option("--planes", slice.planes, "this many planes over the mesh's extent")
      ->check(CLI::Range(uint32_t{1}, uint32_t{0xFFFFFFFF}));
  sliceCmd->add_option("--spacing", slice.spacing, "planes this far apart")
      ->check(CLI::PositiveNumber);
  sliceCmd->add_option("--normal", slice.normal, "plane normal X,Y,Z (default 0,0,1)")
      ->delimiter(',')
      ->expected(3);
  sliceCmd->add_option("--origin", slice.origin, "a point of plane 0, X,Y,Z")
      ->delimiter(',')
      ->expected(3);
  sliceCmd->add_option("--subset", slice.subset, "subset id of the contours (default 1)");
  sliceCmd
      ->add_option("--view-split", slice.viewSplit,
                   "instead of one file, two partial scans seen from two directions A "
                   "degrees apart: OUT-1.afxs (subset S) and OUT-2.afxs (subset S+1)")
      ->check(CLI::Range(0.0, 360.0));
  sliceCmd
      ->add_option("--read-seconds", slice.readSeconds,
                   "stop reading the mesh after this much CPU time (default 30 s plus 1 s per "
                   "MiB of the file)")
      ->check(CLI::Range(1u, 86400u));
  sliceCmd->add_flag("--json", slice.json, "print the summary as one JSON object");
  sliceCmd->footer(example("luafxs slice bunny.ply --planes 40 -o bunny.afxs"));

  CompareArgs compare;
  auto* compareCmd = app.add_subcommand(
      "compare", "Deviation of measured contours from nominal ones, as results per point");
  compareCmd->add_option("MEASURED", compare.measured, "the measured .afxs file")->required();
  compareCmd->add_option("NOMINAL", compare.nominal, "the nominal .afxs file")->required();
  compareCmd->add_option("-o,--output", compare.output,
                         "write a copy of MEASURED with the results here (default: append the "
                         "results to MEASURED)");
  compareCmd->add_flag("--json", compare.json, "print the per-plane summary as JSON");
  compareCmd->footer(example("luafxs compare unified.afxs bunny.afxs -o deviation.afxs"));

  ImportArgs import;
  auto* importCmd = app.add_subcommand(
      "import", "Contours from the csv, PLY or xyz that dump writes, into a new file");
  importCmd->add_option("IN", import.input, "a .csv (with dump's header line), .ply or .xyz file")
      ->required();
  importCmd->add_option("-o,--output", import.output, "the output .afxs file")->required();
  importCmd->footer(example("luafxs import plane3.csv -o plane3.afxs"));

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::string verb = unknownVerb(app, argc, argv);
    if (!verb.empty())
      error("", fmt::format("unknown verb '{}' (verbs: {}; run 'luafxs --help')", verb,
                            verbNames(app)));
    else
      error("", fmt::format("{} (run 'luafxs {}--help')", e.what(),
                            app.get_subcommands().empty()
                                ? std::string()
                                : app.get_subcommands().front()->get_name() + " "));
    return kExitUsage;
  }

  try {
    if (*infoCmd) return runInfo(info);
    if (*validateCmd) return runValidate(validate);
    if (*dumpCmd) return runDump(dump);
    if (*unifyCmd) return runUnify(unify);
    if (*removeCmd) return runRemove(remove);
    if (*plotCmd) return runPlot(plot);
    if (*viewCmd) return runView(view);
    if (*demoCmd) return runDemo(demo);
    if (*batchCmd) return runBatch(batch);

    if (*sliceCmd) return runSlice(slice);
    if (*compareCmd) return runCompare(compare);
    if (*importCmd) return runImport(import);
  } catch (const std::system_error& e) {
    // fmt reports a failed write to standard output this way.
    noteStandardOutputFailure(e.code().value());
    return kExitBad;
  } catch (const std::exception& e) {
    error("", std::string("internal error: ") + e.what());
    return kExitBad;
  }
  return kExitUsage;
}

}  // namespace
