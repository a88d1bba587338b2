#include "set_fixture.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "unicode_fixture.h"

namespace kvfs_test {

std::vector<ByteRange> writes_of(const TracedRun& traced) {
  std::vector<ByteRange> writes;
  for (const std::string& call : traced.calls_of("pwrite64 ")) {
    const auto number_behind = [&call](const std::string& name) {
      const std::size_t at = call.find(name);
      EXPECT_NE(at, std::string::npos) << call;
      return at == std::string::npos ? 0 : std::strtoull(call.c_str() + at + name.size(), nullptr, 10);
    };
    writes.push_back({number_behind(" offset="), number_behind(" size=")});
  }
  return writes;
}

static std::string without_line_feed(const ToolRun& run) {
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_FALSE(run.out.empty());
  return run.out.substr(0, run.out.size() - 1);
}

static std::string text_of(const std::vector<ByteRange>& ranges) {
  std::ostringstream text;
  for (const ByteRange& range : ranges) {
    text << range.length << " bytes at " << range.offset << "\n";
  }
  return text.str();
}

Volume expect_set(const ScratchFile& image, const std::string& label, const Name& stored, const CheckOptions& options) {
  const Volume before = image.volume();
  TracedRun traced = run_traced({image.path(), label});
  EXPECT_EQ(traced.run, printed(""));
  EXPECT_EQ(traced.balance["allocations"], 0);
  EXPECT_EQ(traced.balance["locks"], 0);
  Volume after = image.volume();
  const ScratchFile copy(before);
  EXPECT_EQ(run_tool({copy.path(), label}), printed(""));
  EXPECT_TRUE(copy.volume() == after) << "the tool as it is shipped does something else";
  EXPECT_EQ(faults_of_change(before, after, stored, options), "");
  std::set<std::uint32_t> nodes = changed_nodes(before, after);
  nodes.merge(nodes_of_label(before));
  EXPECT_EQ(text_of(writes_of(traced)), text_of(transfers_of_nodes(before, nodes)));
  EXPECT_EQ(without_line_feed(run_tool({"--output-mode=raw", image.path()})), to_utf8(stored));
  EXPECT_EQ(decomposed(without_line_feed(run_tool({image.path()}))), stored);
  return after;
}

Volume expect_set(const ScratchFile& image, const std::string& label, const CheckOptions& options) {
  return expect_set(image, label, decomposed(label), options);
}

void expect_refused(const ScratchFile& image, const std::string& label, const std::string& messages) {
  const Volume before = image.volume();
  TracedRun traced = run_traced({image.path(), label});
  EXPECT_EQ(traced.run, failed(messages));
  EXPECT_EQ(traced.balance["allocations"], 0);
  EXPECT_EQ(traced.balance["locks"], 0);
  EXPECT_EQ(text_of(writes_of(traced)), "");
  EXPECT_EQ(run_tool({image.path(), label}), failed(messages));
  EXPECT_TRUE(image.volume() == before) << "the image has changed";
}

// ---- Independent readers -------------------------------------------------------------------------------------------

static ToolRun run_reader(const std::string& program, std::vector<std::string> arguments) {
  const char* const path = std::getenv("PATH");
  RunOptions options;
  options.environment["LC_ALL"] = "C.UTF-8";
  options.environment["PATH"] = std::string(path == nullptr ? "" : path) + ":/usr/sbin:/sbin";
  arguments.insert(arguments.begin(), program);
  return run_program("env", arguments, options);  // it looks in the folders of the new PATH
}

// What stands behind this text in the first line that begins with it.
static std::string field_of(const std::string& program, const std::vector<std::string>& arguments,
                            const std::string& begin) {
  const ToolRun run = run_reader(program, arguments);
  std::istringstream lines(run.out);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.starts_with(begin)) {
      return program + ": " + to_utf8(decomposed(line.substr(begin.size())));
    }
  }
  ADD_FAILURE() << program << " says nothing of a label\n" << run;
  return program + ": nothing";
}

std::vector<std::string> labels_by_others(const std::string& path) {
  std::vector<std::string> labels = {
      field_of("blkid", {"-p", "-o", "value", "-s", "LABEL", path}, ""),
      field_of("7z", {"l", "-slt", "-ba", path}, "Path = "),  // the root folder is the first entry of the list
      field_of("fsstat", {"-f", "hfs", path}, "Volume Name: "),
  };
  if (Volume::load(path).get_field("attributesFile.totalBlocks") != 0) {
    labels.push_back(field_of("fshfsinfo", {path}, "\tName\t\t\t\t: "));
  }
  return labels;
}

// The lines of a list of 7z, the name of the root folder cut off where a path begins with it.
static std::string without_root(const std::string& list) {
  const std::string kPath = "Path = ";
  std::istringstream lines(list);
  std::string root;
  std::string rest;
  std::string line;
  while (std::getline(lines, line)) {
    if (line.starts_with(kPath)) {
      root = root.empty() ? line : root;
      if (line.starts_with(root)) {
        line.replace(0, root.size(), kPath);
      }
    }
    rest += line;
    rest += '\n';
  }
  return rest;
}

std::string listing_by_others(const std::string& path) {
  const ToolRun list = run_reader("7z", {"l", "-slt", "-ba", path});
  EXPECT_EQ(list.status, 0) << list;
  const ToolRun files = run_reader("fls", {"-r", "-p", "-l", "-f", "hfs", path});
  return without_root(list.out) + files.out + "fls: " + std::to_string(files.status);
}

}  // namespace kvfs_test
