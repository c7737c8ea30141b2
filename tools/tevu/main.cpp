// `tevu`: tags of the files on the tagged volumes, for shell scripts.
//
//   tevu [--help | --version] COMMAND [OPTIONS] [ARGUMENTS]
//
// The commands are in the table below; each has its own --help.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "cli.h"

namespace tevu_cli {

namespace {

constexpr const char kVersion[] = "tevu 0.1.0";

constexpr const char kOverview[] =
    "Usage: tevu [--help | --version] COMMAND [OPTIONS] [ARGUMENTS]\n"
    "\n"
    "Tags (NAME=VALUE) of the files on the tagged volumes.\n"
    "\n"
    "Commands:\n";

constexpr const char kOverviewEnd[] =
    "\n"
    "'tevu COMMAND --help' describes a command.\n"
    "\n"
    "Exit status: 0 success; 1 a file or tag failed (each failure is reported\n"
    "on standard error as one line 'tevu: FILE: TAG: REASON'); 2 usage error;\n"
    "3 the tag file system is not mounted; 4 not found (get, find, rename);\n"
    "130 interrupted (import).\n";

constexpr const char kSetHelp[] =
    "Usage: tevu set [-r [-n [-0]]] [-m] [--strip-backslashes]\n"
    "                -t NAME=VALUE [-t NAME=VALUE ...] FILE...\n"
    "\n"
    "Sets every given tag on every FILE, directly in the volumes' tag\n"
    "databases, one transaction per file. A failure of one file or tag is\n"
    "reported and the others go on.\n"
    "\n"
    "  -t, --tag NAME=VALUE  a tag to set (repeatable; VALUE may be empty)\n"
    "  -r, --recursive       also every file and directory below each FILE,\n"
    "                        walked on disk (symbolic links are left out)\n"
    "  -n, --dry-run         only print the paths that would be tagged\n"
    "  -0, --null            (with -n) end each path with a NUL byte\n"
    "  -m, --mount           write the tag files through the mounted tag file\n"
    "                        system instead; the daemon does the database work\n"
    "  --strip-backslashes   store values that hold a backslash without it\n"
    "                        (the tag database strips backslashes; without\n"
    "                        this option such a value is refused)\n";

constexpr const char kGetHelp[] =
    "Usage: tevu get [-m] [-0] FILE... NAME\n"
    "\n"
    "Prints the value of tag NAME of each FILE, followed by a line feed; with\n"
    "several files each value follows the file's path and a TAB. Reads the\n"
    "volumes' databases without taking a write lock. Exit status 4 when a\n"
    "file does not carry the tag, 1 when something failed.\n"
    "\n"
    "  -m, --mount  read the tag files through the mounted tag file system\n"
    "  -0, --null   end each record with a NUL byte instead of a line feed\n";

constexpr const char kListHelp[] =
    "Usage: tevu list [-m] [-0] FILE...\n"
    "\n"
    "Prints every tag of each FILE, one 'NAME=VALUE' per line, in the order\n"
    "the tags were first used on the volume; with several files each line\n"
    "follows the file's path and a TAB. Reads the volumes' databases without\n"
    "taking a write lock.\n"
    "\n"
    "  -m, --mount  list the tag directory the tag file system shows, sorted\n"
    "               by name\n"
    "  -0, --null   end each record with a NUL byte instead of a line feed\n";

constexpr const char kDelHelp[] =
    "Usage: tevu del [-m] -t NAME [-t NAME ...] FILE...\n"
    "       tevu del -g PATTERN FILE...\n"
    "       tevu del --all NAME...\n"
    "\n"
    "Removes the named tags from every FILE, directly in the tag databases\n"
    "(a tag that is not set counts as removed), or every tag whose name\n"
    "matches the glob PATTERN, through the mounted tag file system. With\n"
    "--all, removes each NAME from every file of every volume that carries\n"
    "it, and reports on standard error how many files that were.\n"
    "\n"
    "  -t, --tag NAME       a tag to remove (repeatable)\n"
    "  -g, --glob PATTERN   remove the tags matching PATTERN (*, ?, [...])\n"
    "  -m, --mount          remove the named tag files through the mount\n"
    "  --all                remove the NAMEs given as operands everywhere\n";

constexpr const char kRenameHelp[] =
    "Usage: tevu rename [--strip-backslashes] OLD NEW\n"
    "\n"
    "Renames tag OLD to NEW on every file of every volume that carries it:\n"
    "each file gets NEW with OLD's value (replacing a value of NEW it had)\n"
    "and loses OLD, in one transaction per file. Reports on standard error\n"
    "how many files were renamed. Exit status 4 when no file carries OLD.\n"
    "OLD and NEW must differ by more than letter case.\n"
    "\n"
    "  --strip-backslashes  rename also values that hold a backslash, which\n"
    "                       the tag database strips (refused otherwise)\n";

constexpr const char kExportHelp[] =
    "Usage: tevu export [--json] [-0] [DIR]\n"
    "\n"
    "Prints every tag of every file on every tagged volume, or of DIR and\n"
    "every file below it, one file per line in the form 'tevu import'\n"
    "reads:\n"
    "  PATH<TAB>NAME=VALUE[<TAB>NAME=VALUE...]\n"
    "with TAB, line feed, carriage return and backslash in any field written\n"
    "as \\t, \\n, \\r and \\\\. 'tevu import' of the output restores the\n"
    "tags. Reads without taking a write lock; files that vanished from the\n"
    "disk are included.\n"
    "\n"
    "  --json      one JSON object per line instead:\n"
    "              {\"path\":\"...\",\"tags\":{\"NAME\":\"VALUE\",...}}\n"
    "  -0, --null  end each record with a NUL byte instead of a line feed\n";

constexpr const char kFindHelp[] =
    "Usage: tevu find [-0] [-l] NAME [VALUE]\n"
    "       tevu find --first [-0] NAME VALUE\n"
    "\n"
    "Prints the path of every file, on every tagged volume, whose tag NAME\n"
    "has the value VALUE (letter case ignored), or that carries NAME at all\n"
    "when no VALUE is given. Reads without taking a write lock. Exit status\n"
    "4 when no file matches.\n"
    "\n"
    "  -l, --long   follow each path with the file's tags, TAB-separated\n"
    "               NAME=VALUE fields (the form 'tevu import' reads)\n"
    "  --first      print all tags of the first file found, one 'NAME=VALUE'\n"
    "               per line (the lookup the tag file system's views use)\n"
    "  -0, --null   end each record with a NUL byte instead of a line feed\n";

constexpr const char kImportHelp[] =
    "Usage: tevu import [-0] [-q] [--strip-backslashes] < LINES\n"
    "\n"
    "Sets tags read from standard input, one file per line:\n"
    "  PATH<TAB>NAME=VALUE[<TAB>NAME=VALUE...]\n"
    "all through one connection per volume, one transaction per file. In\n"
    "every field \\t, \\n, \\r and \\\\ stand for TAB, line feed, carriage\n"
    "return and backslash (the form 'tevu export' writes); any other\n"
    "backslash is an error. A carriage return before the line feed is\n"
    "dropped. A malformed line is reported with its number, path and field,\n"
    "and sets nothing; the import goes on. While standard error is a\n"
    "terminal a progress line shows the files done, the rate and, when\n"
    "standard input is a file, the records done of all, the percentage and\n"
    "the time left; at the end one line sums up:\n"
    "  tevu: import: FILES files, TAGS tags, FAILURES failures, SECONDS s\n"
    "An interrupt (Ctrl-C) stops after the current file (exit status 130);\n"
    "what was done stays.\n"
    "\n"
    "  -0, --null           records end with a NUL byte instead of a line feed\n"
    "  -q, --quiet          no progress line and no summary\n"
    "  --strip-backslashes  store values that hold a backslash without it\n"
    "                       (refused otherwise: the database would strip it)\n";

constexpr const char kDeletedHelp[] =
    "Usage: tevu deleted PATH...\n"
    "\n"
    "Removes the tags of each PATH and of everything below it: call it when\n"
    "a script deleted (or is about to delete) those files. PATH is taken as\n"
    "written (made absolute, not resolved: the file may be gone).\n";

constexpr const char kMovedHelp[] =
    "Usage: tevu moved SRC DST\n"
    "\n"
    "Carries the tags of SRC and of everything below it over to DST: call it\n"
    "when a script moved or renamed SRC to DST. Within one volume the tags\n"
    "are renamed; onto another volume they are moved there (the source\n"
    "volume keeps none, and the destination's tag lists are rebuilt, so\n"
    "lookups find the new path at once); a DST outside the tagged volumes\n"
    "drops them. Paths are taken as written.\n";

constexpr const char kCleanupHelp[] =
    "Usage: tevu cleanup [-n] [-0] DIR\n"
    "\n"
    "Removes the tags of every file below DIR (or DIR itself) that no longer\n"
    "exists, and prints each such path. An interrupt (Ctrl-C) stops the scan;\n"
    "what was found until then is removed.\n"
    "\n"
    "  -n, --dry-run  only print the paths, remove nothing\n"
    "  -0, --null     end each path with a NUL byte instead of a line feed\n";

constexpr const char kViewHelp[] =
    "Usage: tevu view create NAME\n"
    "       tevu view cond NAME CONDITION\n"
    "       tevu view group NAME GROUPING\n"
    "       tevu view events NAME on|off\n"
    "       tevu view path [-0] NAME\n"
    "       tevu view delete NAME\n"
    "\n"
    "Configures the views that the tag file system builds. 'cond' and 'group'\n"
    "create the view when needed; 'events' needs an existing view; 'path'\n"
    "prints the directory in which the view's files appear.\n"
    "\n"
    "  -0, --null  (path) end the path with a NUL byte instead of a line feed\n";

constexpr const char kLimitsHelp[] =
    "Usage: tevu limits\n"
    "\n"
    "Prints the limits the tag file system publishes, as\n"
    "  TAG_NAME_MAX=N\n"
    "  TAG_VALUE_MAX=N\n"
    "Names and values must be shorter than these. 0 means unknown (exit 1).\n";

}  // namespace

const std::vector<Command>& commands() {
  static const std::vector<Command> table = {
      {"set", "set tags on files", kSetHelp, cmd_set},
      {"get", "print one tag of files", kGetHelp, cmd_get},
      {"list", "print every tag of files", kListHelp, cmd_list},
      {"del", "remove tags from files", kDelHelp, cmd_del},
      {"find", "list the files that carry a tag or a tag value", kFindHelp,
       cmd_find},
      {"rename", "rename a tag on every file", kRenameHelp, cmd_rename},
      {"import", "set tags read from standard input", kImportHelp, cmd_import},
      {"export", "print the tags of every file for import", kExportHelp,
       cmd_export},
      {"deleted", "drop the tags of deleted files", kDeletedHelp, cmd_deleted},
      {"moved", "carry tags along after a move", kMovedHelp, cmd_moved},
      {"cleanup", "drop the tags of vanished files", kCleanupHelp, cmd_cleanup},
      {"view", "create, configure and delete views", kViewHelp, cmd_view},
      {"limits", "print the tag name and value limits", kLimitsHelp,
       cmd_limits},
  };
  return table;
}

void print_help(const char* command) {
  for (const Command& c : commands()) {
    if (std::strcmp(c.name, command) == 0) {
      std::fputs(c.help, stdout);
      return;
    }
  }
  std::fputs(kOverview, stdout);
  for (const Command& c : commands()) {
    std::printf("  %-8s %s\n", c.name, c.summary);
  }
  std::fputs(kOverviewEnd, stdout);
}

namespace {

int run(int argc, char** argv) {
  if (argc < 2) {
    return usage_error("tevu", "no command given");
  }
  const std::string first = argv[1];
  if (first == "--help" || first == "-h" || first == "help") {
    print_help(argc > 2 && first == "help" ? argv[2] : "");
    return kExitOk;
  }
  if (first == "--version") {
    std::puts(kVersion);
    return kExitOk;
  }
  for (const Command& c : commands()) {
    if (first != c.name) continue;
    // The command sees "tevu NAME" as its program name, so that its
    // messages and its help name it.
    std::string program = std::string("tevu ") + c.name;
    std::vector<char*> args(argv + 1, argv + argc);
    args[0] = &program[0];
    args.push_back(nullptr);
    return c.run(argc - 1, args.data());
  }
  if (!first.empty() && first[0] == '-') {
    return usage_error("tevu", "unknown option " + first);
  }
  return usage_error("tevu", "unknown command '" + first + "'");
}

}  // namespace
}  // namespace tevu_cli

int main(int argc, char** argv) {
  int status;
  try {
    status = tevu_cli::run(argc, argv);
  } catch (const std::exception& e) {
    tevu_cli::report({}, e.what());
    status = tevu_cli::kExitFailed;
  }
  if (std::fflush(stdout) != 0 && status == tevu_cli::kExitOk) {
    tevu_cli::report({}, "cannot write the output");
    status = tevu_cli::kExitFailed;
  }
  return status;
}
