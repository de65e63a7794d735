// The batch job table and the two ways to fill it: a list file, a folder.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <memory>

#include <fmt/format.h>

#include "batch.h"

namespace luafxs {

namespace {

namespace fs = std::filesystem;

// Words of one line: blanks split, double quotes keep blanks, '#' outside
// quotes ends the line.
bool splitWords(const std::string& line, std::vector<std::string>& words) {
  std::string word;
  bool inWord = false, quoted = false;
  for (char c : line) {
    if (quoted) {
      if (c == '"') {
        quoted = false;
      } else {
        word += c;
      }
    } else if (c == '"') {
      quoted = inWord = true;
    } else if (c == '#') {
      break;
    } else if (c == ' ' || c == '\t' || c == '\r') {
      if (inWord) words.push_back(word);
      word.clear();
      inWord = false;
    } else {
      word += c;
      inWord = true;
    }
  }
  if (inWord) words.push_back(word);
  return !quoted;
}

// A line longer than this is no job: the list is refused rather than read
// into memory without end (a list named by mistake, /dev/zero, a binary).
constexpr size_t kMaxLineBytes = size_t{1} << 20;

enum class LineRead { Line, End, TooLong };

// The next line of `in` without its line feed (a last line may lack one).
// A failed read ends the lines too; the caller asks `std::ferror`.
LineRead nextLine(std::FILE* in, std::string& line) {
  line.clear();
  for (int c = std::getc(in); c != EOF; c = std::getc(in)) {
    if (c == '\n') return LineRead::Line;
    if (line.size() == kMaxLineBytes) return LineRead::TooLong;
    line += static_cast<char>(c);
  }
  return line.empty() ? LineRead::End : LineRead::Line;
}

// The arguments after the verb as its parser counts them: "--name=value"
// and "-nVALUE" are an option and its value, two arguments in one word.
size_t argumentCount(const std::vector<std::string>& words) {
  size_t count = 0;
  for (size_t i = 1; i < words.size(); ++i) {
    const std::string& word = words[i];
    const bool longWithValue = word.rfind("--", 0) == 0 && word.find('=') != std::string::npos;
    const bool shortWithValue =
        word.size() > 2 && word[0] == '-' && std::isalpha(static_cast<unsigned char>(word[1]));
    count += longWithValue || shortWithValue ? 2 : 1;
  }
  return count;
}

const BatchVerb* findVerb(const std::string& name) {
  for (const BatchVerb& verb : batchVerbs())
    if (name == verb.name) return &verb;
  return nullptr;
}

std::string verbList() {
  std::string names;
  for (const BatchVerb& verb : batchVerbs())
    names += (names.empty() ? "" : ", ") + std::string(verb.name);
  return names;
}

bool isCrossSectionFile(const fs::directory_entry& entry) {
  std::error_code ec;
  return entry.is_regular_file(ec) && entry.path().extension() == ".afxs";
}

std::vector<fs::path> crossSectionFiles(const fs::path& folder) {
  std::vector<fs::path> files;
  std::error_code ec;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder, ec))
    if (isCrossSectionFile(entry)) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

std::vector<fs::path> subfolders(const fs::path& folder) {
  std::vector<fs::path> folders;
  std::error_code ec;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder, ec))
    if (entry.is_directory(ec)) folders.push_back(entry.path());
  std::sort(folders.begin(), folders.end());
  return folders;
}

}  // namespace

const std::vector<BatchVerb>& batchVerbs() {
  static const std::vector<BatchVerb> verbs = {
      {"unify", 3, "unify -o OUT IN[:ID] IN[:ID]... [--blend] [--xs-id N] [--load-mode M]"},
      {"validate", 1, "validate FILE [--json]"},
      {"slice", 5,
       "slice MESH -o OUT (--planes N | --spacing D) [--normal X,Y,Z] [--origin X,Y,Z] "
       "[--subset S] [--view-split A] [--read-seconds S] [--json]"},
      {"compare", 2, "compare MEASURED NOMINAL [-o OUT] [--json]"},
  };
  return verbs;
}

bool readJobList(const std::string& path, std::vector<BatchJob>& jobs, std::string& problem) {
  struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  const std::unique_ptr<std::FILE, Close> in(std::fopen(path.c_str(), "rb"));
  if (!in) {
    problem = "cannot be opened for reading";
    return false;
  }
  std::string line;
  for (size_t number = 1;; ++number) {
    const LineRead read = nextLine(in.get(), line);
    if (read == LineRead::End) break;
    const std::string where = fmt::format("line {}", number);
    if (read == LineRead::TooLong) {
      problem = fmt::format("{}: longer than {} bytes, which no job is", where, kMaxLineBytes);
      return false;
    }
    std::vector<std::string> words;
    if (!splitWords(line, words)) {
      problem = where + ": a quote is not closed";
      return false;
    }
    if (words.empty()) continue;
    const BatchVerb* verb = findVerb(words.front());
    if (verb == nullptr) {
      problem = fmt::format("{}: '{}' is no batch verb (batch verbs: {})", where, words.front(),
                            verbList());
      return false;
    }
    if (argumentCount(words) < verb->minArguments) {
      problem = fmt::format("{}: too few arguments (usage: {})", where, verb->usage);
      return false;
    }
    jobs.push_back({words, path + ":" + std::to_string(number)});
  }
  if (std::ferror(in.get())) {
    problem = "cannot be read";
    return false;
  }
  return true;
}

bool folderJobs(const std::string& folder, const FolderJobOptions& options,
                std::vector<BatchJob>& jobs, std::string& problem) {
  std::error_code ec;
  if (!fs::is_directory(folder, ec)) {
    problem = "is not a folder";
    return false;
  }
  if (options.validate) {
    for (const fs::path& file : crossSectionFiles(folder))
      jobs.push_back({{"validate", file.string()}, folder});
    for (const fs::path& sub : subfolders(folder))
      for (const fs::path& file : crossSectionFiles(sub))
        jobs.push_back({{"validate", file.string()}, sub.string()});
    return true;
  }
  if (options.outputFolder.empty()) {
    problem = "unify jobs of a folder need -o OUTPUT-FOLDER";
    return false;
  }
  if (!fs::is_directory(options.outputFolder, ec)) {
    problem = options.outputFolder + ": the output folder does not exist";
    return false;
  }
  for (const fs::path& sub : subfolders(folder)) {
    std::vector<fs::path> files = crossSectionFiles(sub);
    if (files.empty()) continue;
    BatchJob job{{"unify", "-o",
                  (fs::path(options.outputFolder) / (sub.filename().string() + ".afxs")).string()},
                 sub.string()};
    if (options.blend) job.args.push_back("--blend");
    for (size_t i = 0; i < files.size(); ++i)
      job.args.push_back(options.blend ? fmt::format("{}:{}", files[i].string(), i + 1)
                                       : files[i].string());
    jobs.push_back(std::move(job));
  }
  return true;
}

}  // namespace luafxs
