// The cases of cases/commands.txt (rpm-verify and signing-check) and cases/check.txt (the check through
// signing-check: key selection, update identifier, the download with fake tools and real wget and curl).
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>

#include "HostSupport.h"

namespace {

const std::string kData = SIGNING_TEST_DATA, kCases = kData + "/../integration/cases";

}  // namespace

// A case: "$ " and a shell command line, "? " and its exit status, then its output line by line
// (exactly; "..." as the last line: the output only begins so). ${NAME} in the output stands for
// the value of NAME in the commands' environment.
TEST(Commands, OutputAndExitStatusOfEachCase) {
    TempFolder served, fakes;
    ASSERT_EQ(symlink((kData + "/keys/publisher-2048.asc").c_str(), (served / "key.asc").c_str()), 0);
    served.Write("moved.asc", "<p>The key moved to http://keys.example.com/publisher.asc</p>\n");
    served.Write("huge.asc", std::string(3 * 1024 * 1024, 'A'));
    LoopbackServer server(served.Path(), fakes / "requests.log");
    ASSERT_GT(server.port, 0);
    // Fake tools (see check.txt); o: the output file, the last argument.
    const std::string last = "for a; do o=$a; done; ", curl = "[ $1 = curl ] && echo /usr/bin/curl\n";
    for (const auto& fake : std::map<std::string, std::string>{
             {"none/.keep", ""},
             {"wget/which", "echo /usr/bin/$1\n"},
             {"wget-cp/which", "echo /usr/bin/$1\n"},
             {"wget/wget", last + "[ -e \"$o\" ] && exit 5; exit 4\n"},
             {"curl-hup/which", curl},
             {"wget-cp/wget", last + "/usr/bin/stat -c %a \"${o%/*}\" > $FAKES/folder-mode; /bin/cp "
                                     "$DATA/keys/publisher-2048.asc \"$o\"\n"},
             {"curl-ln/which", curl},
             {"curl-hup/curl", "kill -HUP $PPID; kill -HUP $$\n"},
             {"killing/which", "kill $PPID; kill $$\n"},
             {"curl-ln/curl", last + "/bin/ln -s /dev/null \"$o\"\n"}}) {
        chmod(fakes.Write(fake.first, "#!/bin/sh\n" + fake.second).c_str(), 0700);
    }
    // The tools as the cases call them: a run with --json keeps a copy of its report, validated against
    // its schema at the end.
    TempFolder reports;
    for (const auto& tool :
         std::map<std::string, std::string>{{"rpm-verify", RPM_VERIFY_TOOL}, {"signing-check", SIGNING_CHECK_TOOL}}) {
        chmod(fakes
                  .Write("tools/" + tool.first,
                         "#!/bin/sh\nfor a; do [ \"$a\" = --json ] || continue; out=$(/usr/bin/mktemp " +
                             reports.Path() + "/" + tool.first + ".XXXXXX); " SIGNING_LAUNCHER " \"" + tool.second +
                             "\" \"$@\" > \"$out\"; s=$?; /usr/bin/cat \"$out\"; exit $s; done\nexec " SIGNING_LAUNCHER
                             " \"" +
                             tool.second + "\" \"$@\"\n")
                  .c_str(),
              0700);
    }
    std::map<std::string, std::string> names = {{"DATA", kData},
                                                {"EXAMPLES", SIGNING_EXAMPLES},
                                                {"CASES", kCases},
                                                {"RPM_VERIFY", fakes / "tools/rpm-verify"},
                                                {"SIGNING_CHECK", fakes / "tools/signing-check"},
                                                {"CHECK", fakes / "tools/signing-check" + " --set DATA=" + kData},
                                                {"FAKES", fakes.Path()},
                                                {"SERVER", "http://127.0.0.1:" + std::to_string(server.port)},
                                                {"SERVER_LOG", fakes / "requests.log"},
                                                {"PRIVATE", ""}};
    int count = 0;
    for (const char* file : {"/commands.txt", "/check.txt"}) {
        std::ifstream cases(kCases + file);
        std::string command, expected;
        int status = -1;
        bool prefix = false;
        auto check = [&] {
            if (command.empty()) return;
            TempFolder own;  // PRIVATE: a folder of this user that nobody else can write to
            names["PRIVATE"] = own.Path();
            for (const auto& name : names) {
                setenv(name.first.c_str(), name.second.c_str(), 1);
                for (size_t at; (at = expected.find("${" + name.first + "}")) != std::string::npos;) {
                    expected.replace(at, name.first.size() + 3, name.second);
                }
            }
            const auto output = Shell(command);
            EXPECT_EQ(prefix ? output.second.substr(0, expected.size()) : output.second, expected) << command;
            EXPECT_EQ(output.first, status) << command;
            ++count;
        };
        for (std::string line; std::getline(cases, line);) {
            if (line.rfind("$ ", 0) == 0) {
                check();
                command = line.substr(2), expected.clear(), prefix = false;
            } else if (line.rfind("? ", 0) == 0) {
                status = std::stoi(line.substr(2));
            } else if (line == "...") {
                prefix = true;
            } else if (!line.empty() && line[0] != '#') {
                expected += line + "\n";
            }
        }
        check();
    }
    EXPECT_EQ(count, 51 + 45);
    const auto valid = Shell("/usr/bin/python3 " + kData + "/../support/validate_json.py " + SIGNING_SCHEMAS + " " +
                             reports.Path() + " 8 2>&1");
    EXPECT_EQ(valid.first, 0) << valid.second;
}
