// `tevu`: tags of the files on the tagged volumes, for shell scripts.
//
//   tevu [--help | --version] COMMAND [OPTIONS] [ARGUMENTS]
//
// The commands are in the table below; each has its own --help.
#include <stdio.h>
#include <string.h>

#include "cli.h"

namespace tevu_cli {

namespace {

constexpr char kVersion[] = "tevu 0.1.0";

constexpr char kOverview[] =
    "Usage: tevu [--help | --version] COMMAND [OPTIONS] [ARGUMENTS]\n"
    "\n"
    "Tags (NAME=VALUE) of the files on the tagged volumes.\n"
    "\n"
    "Commands:\n";

constexpr char kOverviewEnd[] =
    "\n"
    "'tevu COMMAND --help' describes a command.\n"
    "\n"
    "Every command that changes tags ends with one line on standard error:\n"
    "'tevu: COMMAND: N files, M tags, K failures'.\n"
    "Exit status: 0 success; 1 a file or tag failed (each failure is reported\n"
    "on standard error as one line 'tevu: FILE: TAG: REASON'); 2 usage error;\n"
    "3 the tag file system is not mounted; 4 not found (get, find, values,\n"
    "rename, del --all, deleted; repair: rows left whose file was not\n"
    "found); 130 interrupted (import).\n";

constexpr char kSetHelp[] =
    "Usage: tevu set [-r [-n [-0]]] [-m] [--strip-backslashes]\n"
    "                -t NAME=VALUE [-t NAME=VALUE ...] FILE...\n"
    "\n"
    "Sets every given tag on every FILE, directly in the volumes' tag\n"
    "databases, one transaction per file. A failure of one file or tag is\n"
    "reported and the others go on. A tag name may not hold \"/\", \"=\", a\n"
    "double quote or a control character, begin or end with a blank, or be\n"
    "\".\" or \"..\"; names and values longer than the tag file system or the\n"
    "database can hold are refused for every file, with the limit.\n"
    "\n"
    "  -t, --tag NAME=VALUE  a tag to set (repeatable; VALUE may be empty)\n"
    "  -r, --recursive       also every file and directory below each FILE,\n"
    "                        walked on disk (symbolic links are left out); a\n"
    "                        volume's root itself carries no tags\n"
    "  -n, --dry-run         only print the paths that would be tagged\n"
    "  -0, --null            (with -n) end each path with a NUL byte\n"
    "  -m, --mount           write the tag files through the mounted tag file\n"
    "                        system instead; the daemon does the database work\n"
    "  --strip-backslashes   store values that hold a backslash without it\n"
    "                        (the tag database strips backslashes; without\n"
    "                        this option such a value is refused)\n";

constexpr char kGetHelp[] =
    "Usage: tevu get [-m] [-0] [--json] FILE... NAME...\n"
    "\n"
    "Prints the tags NAME of each FILE (the files come first, then the\n"
    "names). With one file and one name, the value alone; with several files\n"
    "and one name, PATH<TAB>VALUE; with several names, one record per file in\n"
    "the form 'tevu import' reads (PATH<TAB>NAME=VALUE...). Reads the volumes'\n"
    "databases through one connection per volume, without a write lock. Exit\n"
    "status 4 when a file does not carry a tag, 1 when something failed.\n"
    "\n"
    "  -m, --mount  read the tag files through the mounted tag file system\n"
    "  -0, --null   end each record with a NUL byte instead of a line feed\n"
    "  --json       one JSON object per file: {\"path\":...,\"tags\":{...}}\n";

constexpr char kListHelp[] =
    "Usage: tevu list [-m] [-0] [--json] FILE...\n"
    "\n"
    "Prints every tag of each FILE, one 'NAME=VALUE' per line, in the order\n"
    "the tags were first used on the volume; with several files each line\n"
    "follows the file's path and a TAB. Reads the volumes' databases through\n"
    "one connection per volume, without a write lock.\n"
    "\n"
    "  -m, --mount  list the tag directory the tag file system shows, sorted\n"
    "               by name\n"
    "  -0, --null   end each record with a NUL byte instead of a line feed\n"
    "  --json       one JSON object per file: {\"path\":...,\"tags\":{...}}\n";

constexpr char kDelHelp[] =
    "Usage: tevu del [-m] -t NAME [-t NAME ...] FILE...\n"
    "       tevu del -g PATTERN FILE...\n"
    "       tevu del --all [-n [-0]] NAME...\n"
    "\n"
    "Removes the named tags from every FILE, directly in the tag databases\n"
    "(a tag that is not set counts as removed), or every tag whose name\n"
    "matches the glob PATTERN, through the mounted tag file system. With\n"
    "--all, removes each NAME from every file of every volume that carries\n"
    "it, whether or not the file is still on the disk; exit status 4 when no\n"
    "file carried it.\n"
    "\n"
    "  -t, --tag NAME       a tag to remove (repeatable)\n"
    "  -g, --glob PATTERN   remove the tags matching PATTERN (*, ?, [...])\n"
    "  -m, --mount          remove the named tag files through the mount\n"
    "  --all                remove the NAMEs given as operands everywhere\n"
    "  -n, --dry-run        (with --all) only print the files that carry them\n"
    "  -0, --null           (with -n) end each path with a NUL byte\n";

constexpr char kFindHelp[] =
    "Usage: tevu find [-0] [-l] [--json] [--count] [--under DIR] CONDITION...\n"
    "       tevu find --first [-0] NAME VALUE\n"
    "\n"
    "Prints the path of every file, on every tagged volume (or below DIR),\n"
    "that satisfies CONDITION. Several operands are joined with blanks into\n"
    "one condition (tevu find year '>' 2000 and not draft). Reads without\n"
    "taking a write lock. Exit status 4 when no file matches.\n"
    "A CONDITION is made of\n"
    "  NAME            the file carries the tag\n"
    "  NAME=VALUE      its value is VALUE (letter case ignored); also !=\n"
    "  NAME<VALUE      also <=, >, >=: as text; with a number as VALUE every\n"
    "                  operator compares numbers, and only numbers match\n"
    "  not C, C and C, C or C, (C)   in this order of binding\n"
    "Words are quoted with '...' or \"...\" when they hold blanks or ( ) = ! < >,\n"
    "or are the names and, or, not.\n"
    "A condition holds at most 128 terms and 16 levels of parentheses and not.\n"
    "Example: tevu find 'kind=photo and not year=2019 and rating>=4'\n"
    "\n"
    "  -l, --long      follow each path with the file's tags, TAB-separated\n"
    "                  NAME=VALUE fields (the form 'tevu import' reads)\n"
    "  --json          one JSON object per file: {\"path\":...} (with -l also\n"
    "                  \"tags\":{...})\n"
    "  --count         print only the number of files (0 too: exit status 4)\n"
    "  --under DIR     only DIR and the files below it\n"
    "  --first         print all tags of the first file found, one 'NAME=VALUE'\n"
    "                  per line (the lookup the tag file system's views use)\n"
    "  -0, --null      end each record with a NUL byte instead of a line feed\n";

constexpr char kTagsHelp[] =
    "Usage: tevu tags [--json] [-0] [DIR]\n"
    "\n"
    "Prints every tag name of every volume (or of DIR and the files below\n"
    "it) with the number of files that carry it, as NAME<TAB>COUNT, sorted\n"
    "with letter case ignored. Reads without taking a write lock.\n"
    "\n"
    "  --json      one JSON object per name: {\"name\":...,\"files\":N}\n"
    "  -0, --null  end each record with a NUL byte instead of a line feed\n";

constexpr char kValuesHelp[] =
    "Usage: tevu values [--json] [-0] NAME [DIR]\n"
    "\n"
    "Prints every value of tag NAME (on every volume, or in DIR and below)\n"
    "with the number of files that carry it, as VALUE<TAB>COUNT, sorted with\n"
    "letter case ignored; values that differ only in letter case are one.\n"
    "Exit status 4 when no file carries NAME.\n"
    "\n"
    "  --json      one JSON object per value: {\"value\":...,\"files\":N}\n"
    "  -0, --null  end each record with a NUL byte instead of a line feed\n";

constexpr char kRenameHelp[] =
    "Usage: tevu rename [-n [-0]] [--merge] OLD NEW\n"
    "       tevu rename --value [-n [-0]] NAME OLD NEW\n"
    "\n"
    "Renames tag OLD to NEW on every file of every volume that carries it,\n"
    "whether or not the file is still on the disk: each file gets NEW with\n"
    "OLD's value and loses OLD. Nothing is overwritten: when a file carries\n"
    "both OLD and NEW, nothing is renamed at all (exit status 1) unless\n"
    "--merge is given. Exit status 4 when no file carries OLD. OLD and NEW\n"
    "must differ by more than letter case. With --value, every file whose\n"
    "tag NAME has the value OLD (letter case ignored) gets the value NEW\n"
    "instead: onto a value that other files carry, the two values merge.\n"
    "\n"
    "  --merge        also the files that carry both: they keep NEW's value\n"
    "                 and lose OLD (as a merge of the two tags), counted\n"
    "  --value        rename a value of tag NAME, not the tag\n"
    "  -n, --dry-run  only print the files that would be renamed\n"
    "  -0, --null     (with -n) end each path with a NUL byte\n";

constexpr char kImportHelp[] =
    "Usage: tevu import [-0] [-q] [-n] [--json] [--strip-backslashes] < LINES\n"
    "\n"
    "Sets tags read from standard input, one file per line:\n"
    "  PATH<TAB>NAME=VALUE[<TAB>NAME=VALUE...]\n"
    "(the form 'tevu export' writes), through one connection per volume, one\n"
    "transaction per file. In every field \\t, \\n, \\r and \\\\ stand for TAB,\n"
    "line feed, carriage return and backslash, and in a name \\= for \"=\"; any\n"
    "other backslash is an error. Lines beginning with '#' and blank lines\n"
    "are skipped; a carriage return before the line feed is dropped; a NUL\n"
    "byte in a line is an error. A malformed line is reported with its\n"
    "number, path and field, and sets nothing; the import goes on. While\n"
    "standard error is a terminal a progress line shows the records done and\n"
    "the rate (with the time left when standard input is a file). An\n"
    "interrupt (Ctrl-C) stops after the current file (exit status 130); what\n"
    "was done stays.\n"
    "\n"
    "  -0, --null           records end with a NUL byte instead of a line feed\n"
    "  -q, --quiet          no progress line and no closing count\n"
    "  -n, --dry-run        check every record and print the files it would\n"
    "                       tag, change nothing\n"
    "  --json               read JSON lines as 'tevu export --json' writes them\n"
    "  --strip-backslashes  store values that hold a backslash without it\n"
    "                       (refused otherwise: the database would strip it)\n";

constexpr char kExportHelp[] =
    "Usage: tevu export [--json] [-0] [DIR]\n"
    "\n"
    "Prints every tag of every file on every tagged volume, or of DIR and\n"
    "every file below it, one file per line in the form 'tevu import'\n"
    "reads:\n"
    "  PATH<TAB>NAME=VALUE[<TAB>NAME=VALUE...]\n"
    "with TAB, line feed, carriage return and backslash in any field written\n"
    "as \\t, \\n, \\r and \\\\, and \"=\" in a name as \\=. 'tevu import' of the\n"
    "output restores the tags. Reads without taking a write lock; files that\n"
    "vanished from the disk are included.\n"
    "\n"
    "  --json      one JSON object per line instead:\n"
    "              {\"path\":\"...\",\"tags\":{\"NAME\":\"VALUE\",...}}; bytes that\n"
    "              are not UTF-8 are written as \\udcXX\n"
    "  -0, --null  end each record with a NUL byte instead of a line feed\n";

constexpr char kDeletedHelp[] =
    "Usage: tevu deleted [-n] [-0] PATH...\n"
    "\n"
    "Removes the tags of each PATH and of everything below it: call it after\n"
    "a script deleted those files. A PATH that still exists is refused (its\n"
    "files would lose their tags); so is an empty one. Paths are made\n"
    "canonical against the disk (the existing parent, and the name kept).\n"
    "Exit status 4 when nothing was tagged at a PATH. A pattern is not\n"
    "expanded here: 'tevu cleanup DIR' finds vanished files by itself.\n"
    "\n"
    "  -n, --dry-run  only print the files whose tags would be removed\n"
    "  -0, --null     (with -n) end each path with a NUL byte\n";

constexpr char kMovedHelp[] =
    "Usage: tevu moved [-n [-0]] [--before] SRC... DST\n"
    "\n"
    "Carries the tags of each SRC and of everything below it along to where\n"
    "'mv SRC... DST' put it: DST/NAME (NAME the last component of SRC) when\n"
    "DST is a directory that now holds NAME, otherwise DST itself; several\n"
    "SRCs need a directory DST. Naming the whole destination (DST/NAME)\n"
    "leaves no doubt. A SRC that still exists, or a destination that does\n"
    "not, is refused (nothing changes). Within one volume the tags are\n"
    "renamed; onto another volume every tag reaches the destination (merged\n"
    "with tags already there) or the reason is said and every tag stays at\n"
    "SRC; running the command again finishes an interrupted move. A\n"
    "destination outside the tagged volumes drops the tags.\n"
    "\n"
    "  --before       the move is about to happen: SRC must exist and the\n"
    "                 destination must not (DST/NAME when DST is a directory)\n"
    "  -n, --dry-run  only print the files whose tags would move\n"
    "  -0, --null     (with -n) end each path with a NUL byte\n";

constexpr char kCleanupHelp[] =
    "Usage: tevu cleanup [-n] [-0] [--force] DIR\n"
    "\n"
    "Removes the tags of every file below DIR (or DIR itself) that no longer\n"
    "exists, and prints each such path. When every tagged file of the volume\n"
    "is missing (its disk is not mounted, say), nothing is removed unless\n"
    "--force is given. An interrupt (Ctrl-C) stops the scan; what was found\n"
    "until then is removed.\n"
    "\n"
    "  -n, --dry-run  only print the paths, remove nothing\n"
    "  -0, --null     end each path with a NUL byte instead of a line feed\n"
    "  --force        remove the tags even when every file is missing\n";

constexpr char kWatchHelp[] =
    "Usage: tevu watch [-v] [--grace SECONDS] [DIR...]\n"
    "\n"
    "Follows every tagged volume (or the DIRs and everything below them)\n"
    "until SIGTERM or SIGINT, so that tags follow every move and deletion,\n"
    "whoever makes it: renames at any depth, moves onto another volume (the\n"
    "copy, same name and size, is recognised when the source is unlinked),\n"
    "renames over a tagged file (it keeps its tags). A deleted file's tags\n"
    "are dropped only when it has not come back within the grace period.\n"
    "Volumes mounted or removed while it runs are taken up or released;\n"
    "nothing of a disk that went away is taken for deleted. At the start,\n"
    "after an overflow of the kernel's event queue and on SIGHUP it runs\n"
    "'tevu repair'. When every watch is in place it prints\n"
    "'tevu: watch: watching N directories on M volumes' on standard error.\n"
    "On SIGTERM or SIGINT it finishes pending work and exits 0.\n"
    "\n"
    "  -v, --verbose        print each followed move ('moved<TAB>FROM<TAB>TO'),\n"
    "                       deletion ('deleted<TAB>PATH') and what a repair\n"
    "                       left alone ('ambiguous<TAB>PATH<TAB>N',\n"
    "                       'unmatched<TAB>PATH') on standard output\n"
    "  --grace SECONDS      how long a deleted path may take to come back\n"
    "                       (default 5)\n";

constexpr char kRepairHelp[] =
    "Usage: tevu repair [-n] [-0] [DIR...]\n"
    "\n"
    "Finds where the files of tagged rows went while nothing watched: for\n"
    "each tagged file below DIR (or on every volume) that is gone, the file\n"
    "of the same volume with the same fingerprint (kind, size, modification\n"
    "time; kept while the file was tagged and still there) gets its tags,\n"
    "when exactly one matches. Each move is printed as FROM<TAB>TO; rows\n"
    "with several or no matching files are named on standard error and left\n"
    "alone. Fingerprints of the files that are in place are recorded, so\n"
    "that later moves can be found. Exit status 4 when rows were left alone.\n"
    "\n"
    "  -n, --dry-run  only print the pairs; change nothing\n"
    "  -0, --null     print each pair as it is, ended by a NUL byte\n";

constexpr char kViewHelp[] =
    "Usage: tevu view create NAME\n"
    "       tevu view cond NAME CONDITION\n"
    "       tevu view group NAME GROUPING\n"
    "       tevu view events NAME on|off\n"
    "       tevu view path [-0] NAME\n"
    "       tevu view show NAME\n"
    "       tevu view list [-0]\n"
    "       tevu view delete NAME\n"
    "\n"
    "Configures the views that the tag file system builds. 'cond' and 'group'\n"
    "create the view when needed; their text is passed to the tag file\n"
    "system as it is, which alone defines its syntax (a view whose condition\n"
    "it cannot read stays empty). 'events' needs an existing view; 'path'\n"
    "prints the directory in which the view's files appear; 'show' prints\n"
    "the view's configuration (cond=..., group=..., events=on|off); 'list'\n"
    "prints every view's name.\n"
    "\n"
    "  -0, --null  (path, list) end each record with a NUL byte\n";

constexpr char kLimitsHelp[] =
    "Usage: tevu limits\n"
    "\n"
    "Prints the limits the tag file system publishes, as\n"
    "  TAG_NAME_MAX=N\n"
    "  TAG_VALUE_MAX=N\n"
    "Names and values must be shorter than these (and fit the tag database:\n"
    "names of at most 56 bytes). 0 means unknown (exit 1).\n";

}  // namespace

const Command kCommands[] = {
    {"set", "set tags on files", kSetHelp, cmd_set},
    {"get", "print tags of files", kGetHelp, cmd_get},
    {"list", "print every tag of files", kListHelp, cmd_list},
    {"del", "remove tags from files", kDelHelp, cmd_del},
    {"find", "list the files that satisfy a condition", kFindHelp, cmd_find},
    {"tags", "list the tag names with their counts", kTagsHelp, cmd_tags},
    {"values", "list the values of a tag with their counts", kValuesHelp, cmd_values},
    {"rename", "rename a tag on every file", kRenameHelp, cmd_rename},
    {"import", "set tags read from standard input", kImportHelp, cmd_import},
    {"export", "print the tags of every file for import", kExportHelp, cmd_export},
    {"deleted", "drop the tags of deleted files", kDeletedHelp, cmd_deleted},
    {"moved", "carry tags along after a move", kMovedHelp, cmd_moved},
    {"cleanup", "drop the tags of vanished files", kCleanupHelp, cmd_cleanup},
    {"watch", "make tags follow every move and deletion", kWatchHelp, cmd_watch},
    {"repair", "find files moved while nothing watched", kRepairHelp, cmd_repair},
    {"view", "create, configure, show and delete views", kViewHelp, cmd_view},
    {"limits", "print the tag name and value limits", kLimitsHelp, cmd_limits},
};
const std::size_t kCommandCount = sizeof kCommands / sizeof kCommands[0];

void print_help(const char* command) {
  for (const Command& c : kCommands) {
    if (strcmp(c.name, command) == 0) {
      fputs(c.help, stdout);
      return;
    }
  }
  fputs(kOverview, stdout);
  for (const Command& c : kCommands) printf("  %-8s %s\n", c.name, c.summary);
  fputs(kOverviewEnd, stdout);
}

namespace {

int run(int argc, char** argv) {
  if (argc < 2) return usage_error("tevu", "no command given");
  const char* first = argv[1];
  if (strcmp(first, "--help") == 0 || strcmp(first, "-h") == 0 ||
      strcmp(first, "help") == 0) {
    print_help(argc > 2 && strcmp(first, "help") == 0 ? argv[2] : "");
    return kExitOk;
  }
  if (strcmp(first, "--version") == 0) {
    puts(kVersion);
    return kExitOk;
  }
  for (const Command& c : kCommands) {
    if (strcmp(first, c.name) != 0) continue;
    // The command sees "tevu NAME" as its program name, so that its
    // messages and its help name it.
    char program[32];
    tevul::format_cut(program, sizeof program, "tevu %s", c.name);
    argv[1] = program;
    return c.run(argc - 1, argv + 1);
  }
  if (first[0] == '-') return usage_error("tevu", "unknown option %s", first);
  return usage_error("tevu", "unknown command '%s'", first);
}

}  // namespace
}  // namespace tevu_cli

int main(int argc, char** argv) {
  int status = tevu_cli::run(argc, argv);
  if (fflush(stdout) != 0 && status == tevu_cli::kExitOk) {
    tevu_cli::report({}, "cannot write the output");
    status = tevu_cli::kExitFailed;
  }
  return status;
}
