// The key download for real: a loopback HTTP server started and stopped by each test, and the
// system's wget and curl run by the module.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "HostSupport.h"
#include "rpmutil.h"

namespace {

const std::string kData = SIGNING_TEST_DATA;

// python3's http.server on 127.0.0.1 and a free port, serving one folder; its request log is kept.
class LoopbackServer {
public:
    explicit LoopbackServer(const std::string& folder) : log_(temp_ / "requests.log") {
        int output[2];
        if (pipe(output) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            dup2(output[1], STDOUT_FILENO);
            FILE* log = std::fopen(log_.c_str(), "w");
            if (log != nullptr) dup2(fileno(log), STDERR_FILENO);
            close(output[0]);
            execlp("python3", "python3", "-u", "-m", "http.server", "0", "--bind", "127.0.0.1", "--directory",
                   folder.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        close(output[1]);
        // "Serving HTTP on 127.0.0.1 port 40123 (http://127.0.0.1:40123/) ..."
        FILE* banner = fdopen(output[0], "r");
        char line[256] = {};
        if (banner != nullptr && std::fgets(line, sizeof line, banner) != nullptr) {
            std::sscanf(line, "Serving HTTP on %*s port %d", &port_);
        }
        if (banner != nullptr) std::fclose(banner);
    }
    ~LoopbackServer() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
    }
    int Port() const { return port_; }
    std::string Url(const std::string& file) const { return "http://127.0.0.1:" + std::to_string(port_) + "/" + file; }
    std::string Requests() const {
        std::ifstream log(log_);
        std::stringstream text;
        text << log.rdbuf();
        return text.str();
    }

private:
    TempFolder temp_;
    std::string log_;
    pid_t pid_ = -1;
    int port_ = 0;
};

// A port on 127.0.0.1 that nothing listens on.
int ClosedPort() {
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address);
    getsockname(s, reinterpret_cast<sockaddr*>(&address), &length);
    close(s);
    return ntohs(address.sin_port);
}

class KeyDownload : public ::testing::Test {
protected:
    void SetUp() override {
        served_.Write("key.asc", std::string(std::istreambuf_iterator<char>(std::ifstream(kData + "/keys/publisher-2048.asc").rdbuf()), {}));
        served_.Write("moved.asc", "<p>The key moved to http://keys.example.com/publisher.asc</p>\n");
        session_["TEMP_FOLDER"] = temp_.Path();
        host::HostProduct& product = session_->AddProduct();
        product.AddComponent("hello", kData + "/rpm", "signed-sha256.rpm", "rpm");
        product.AddComponent("extras", kData + "/rpm", "signed-sha512.rpm", "rpm");
    }
    std::string Output() const { return temp_.Path() + "/PUBLIC_KEY.PUB"; }

    TempFolder served_, temp_;
    ScopedSession session_;
};

}  // namespace

TEST_F(KeyDownload, WgetFetchesTheKeyWithTheUpdateIdentifier) {
    LoopbackServer server(served_.Path());
    ASSERT_GT(server.Port(), 0);
    session_["signing_url"] = server.Url("key.asc");
    session_["SIGNING_DEFAULT_URL"] = "http://127.0.0.1:1/unused";
    session_->environments["updates"].entries["VelUpdateId"] = "4711";
    session_->Products()[0]->environment()->entries["phonehome"] = session_->environments["updates"].Reference();

    EXPECT_EQ(signing_validate_package_list(session_.get()), 0);
    const std::string command = "export LD_LIBRARY_PATH=\"\"; wget --timeout=3 --tries=1 --quiet " +
                                server.Url("key.asc") + "?id=4711 -O " + Output() + " 2>/dev/null";
    const std::vector<std::string> expected = {
        "signing_validate_package_list: started",
        "signing_get_public_key: public key will be downloaded from Tarvo",
        "signing_get_public_key: request value [" + server.Url("key.asc") + "?id=4711]",
        "signing_get_public_key: command value [" + command + "]",
        "signing_get_public_key: secure command   [" + command + " --secure-protocol=SSLv3]",
        "signing_get_public_key: secure protocols [--secure-protocol=SSLv3]",
        "signing_get_public_key: public key obtained successfully [" + Output() + "]"};
    ASSERT_GE(session_->log.size(), expected.size());
    EXPECT_EQ(std::vector<std::string>(session_->log.begin(), session_->log.begin() + expected.size()), expected);
    EXPECT_EQ(session_.CountLogged("_signing_validate_file: signing validation result 0"), 2u);
    EXPECT_NE(server.Requests().find("\"GET /key.asc?id=4711 HTTP"), std::string::npos) << server.Requests();
}

TEST_F(KeyDownload, CurlWhenWgetIsMissingAndTheIdentifierOfAComponent) {
    LoopbackServer server(served_.Path());
    ASSERT_GT(server.Port(), 0);
    ScopedPath onlyCurl({"which", "curl"});
    session_["SIGNING_DEFAULT_URL"] = server.Url("key.asc");
    session_->environments["updates"].entries["VelUpdateId"] = "99";
    session_->environments["empty"].entries["VelUpdateId"] = "";
    session_->Products()[0]->environment()->entries["phonehome"] = session_->environments["empty"].Reference();
    session_->Products()[0]->components()[1]->environment()->entries["phonehome"] = session_->environments["updates"].Reference();

    EXPECT_EQ(signing_validate_package_list(session_.get()), 0);
    EXPECT_TRUE(session_.Logged("signing_get_public_key: command value [export LD_LIBRARY_PATH=\"\"; curl --max-time 3 "
                                "--retry 1 --location --silent " + server.Url("key.asc") + "?id=99 -o " + Output() +
                                " 2>/dev/null]"));
    EXPECT_TRUE(session_.Logged("signing_get_public_key: secure protocols [--sslv3]"));
    EXPECT_NE(server.Requests().find("\"GET /key.asc?id=99 HTTP"), std::string::npos) << server.Requests();
}

TEST_F(KeyDownload, UnreachableServiceThreeAttemptsEachThenWarningFour) {
    session_["signing_url"] = "http://127.0.0.1:" + std::to_string(ClosedPort()) + "/key.asc";
    EXPECT_EQ(signing_validate_package_list(session_.get()), 1);
    // Both key lookups try three times; wget exits with 4 (network failure): raw wait status 1024.
    EXPECT_EQ(session_.CountLogged("_signing_call_webservice: web service call failed with status 1024"), 6u);
    for (const char* protocol : {"SSLv3", "SSLv2", "TLSv1"}) {
        EXPECT_EQ(session_.CountLogged(std::string("signing_get_public_key: secure protocols [--secure-protocol=") +
                                       protocol + "]"),
                  2u);
    }
    EXPECT_TRUE(session_.Logged("signing_get_public_key: request value [" + session_["signing_url"] + "?id=]"));
    EXPECT_TRUE(session_.Logged("signing_validate_package_list: unable to obtain public key location"));
    EXPECT_EQ(session_["SIGNIFICANCE"], ";0");
    EXPECT_EQ(session_["SHORT_DESC"], ";SIGNING_prereq_war_signing_check_download_short_desc");
    EXPECT_EQ(session_.CountLogged("_signing_validate_file"), 0u);
}

TEST_F(KeyDownload, AServedAddressInsteadOfAKeyIsRejected) {
    LoopbackServer server(served_.Path());
    ASSERT_GT(server.Port(), 0);
    session_["signing_url"] = server.Url("moved.asc");
    EXPECT_EQ(signing_validate_package_list(session_.get()), 1);
    EXPECT_EQ(session_.CountLogged("_signing_is_valid_key: public key contains incorrect value"), 2u);
    EXPECT_TRUE(session_.Logged("signing_validate_package_list: public key is not valid"));
    EXPECT_EQ(session_["FULL_DESC"], ";SIGNING_prereq_war_signing_check_validate_full_desc");
}

// A link planted where the key goes is removed, not written through; the key lands in a regular
// file of this user.
TEST_F(KeyDownload, APlantedLinkIsReplacedNotWrittenThrough) {
    LoopbackServer server(served_.Path());
    ASSERT_GT(server.Port(), 0);
    TempFolder elsewhere;
    const std::string victim = elsewhere.Write("victim", "precious\n");
    ASSERT_EQ(symlink(victim.c_str(), Output().c_str()), 0);
    session_["signing_url"] = server.Url("key.asc");

    EXPECT_EQ(signing_validate_package_list(session_.get()), 0);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(std::ifstream(victim).rdbuf()), {}), "precious\n");
    struct stat status;
    ASSERT_EQ(lstat(Output().c_str(), &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_TRUE(session_.Logged("signing_get_public_key: public key obtained successfully [" + Output() + "]"));
}

// A service that sends far more than any key: each attempt ends at the byte limit and fails, and
// nothing larger than the limit is left behind.
TEST_F(KeyDownload, AnOversizedAnswerEndsEachAttempt) {
    served_.Write("huge.asc", std::string(3 * 1024 * 1024, 'A'));
    LoopbackServer server(served_.Path());
    ASSERT_GT(server.Port(), 0);
    session_["signing_url"] = server.Url("huge.asc");
    EXPECT_EQ(signing_validate_package_list(session_.get()), 1);
    EXPECT_EQ(session_.CountLogged("_signing_call_webservice: web service call failed"), 6u);
    EXPECT_EQ(session_.CountLogged("signing_get_public_key: public key obtained successfully"), 0u);
    EXPECT_TRUE(session_.Logged("signing_validate_package_list: unable to obtain public key location"));
    EXPECT_LE(std::filesystem::file_size(Output()), 1024u * 1024u);
}
