// The command line: preparing, accounts, grants, refusals and exit codes.
#include "support/server_test.h"

#include <fstream>

namespace halvane::server {

class Commands : public ServerTest {
protected:
    void SetUp() override {} // each test prepares what it needs
};

TEST_F(Commands, InitPreparesOnceAndSaysWhyNotTwice) {
    prepare();
    const ProgramResult again = command({"init", "--admin", "root", "--password-stdin"}, "secret\n");
    EXPECT_EQ(again.exitCode, 3);
    EXPECT_NE(again.err.find("is prepared already"), std::string::npos) << again.err;
    start();
    EXPECT_FALSE(login().empty());
}

TEST_F(Commands, InitRefusesADirectoryThatHoldsSomething) {
    std::filesystem::create_directories(dataDirectory() + "/precious");
    const ProgramResult result = command({"init", "--admin", "root", "--password-stdin"}, "secret\n");
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_NE(result.err.find("holds other files"), std::string::npos) << result.err;
    EXPECT_FALSE(std::filesystem::exists(dataDirectory() + "/catalog.sqlite3"));
}

TEST_F(Commands, InitNeedsAUsableAccount) {
    EXPECT_EQ(command({"init", "--admin", "root", "--password-stdin"}, "\n").exitCode, 3);
    EXPECT_EQ(command({"init", "--admin", "a/b", "--password-stdin"}, "secret\n").exitCode, 3);
    EXPECT_EQ(command({"init", "--admin", "root"}).exitCode, 2);
    EXPECT_FALSE(std::filesystem::exists(dataDirectory()));
}

TEST_F(Commands, ServingNeedsAPreparedDirectoryOfItsOwn) {
    const ProgramResult unprepared = command({"--listen", "127.0.0.1:0"});
    EXPECT_EQ(unprepared.exitCode, 3);
    EXPECT_NE(unprepared.err.find("prepare it with 'halvane-server init"), std::string::npos)
        << unprepared.err;
    prepare();
    start();
    const ProgramResult second = command({"--listen", "127.0.0.1:0"});
    EXPECT_EQ(second.exitCode, 3);
    EXPECT_NE(second.err.find("serves"), std::string::npos) << second.err;
}

TEST_F(Commands, WrongOptionsAreUsageErrors) {
    prepare();
    EXPECT_EQ(command({"--listen", "nonsense"}).exitCode, 2);
    EXPECT_EQ(command({"--listen", "127.0.0.1:99999"}).exitCode, 2);
    EXPECT_EQ(command({"--chunk-size", "0"}).exitCode, 2);
    EXPECT_EQ(command({"--tls-cert", "cert.pem"}).exitCode, 2);
    EXPECT_EQ(runProgram({HALVANE_SERVER_BINARY, "--nonsense"}).exitCode, 2);
    EXPECT_EQ(runProgram({HALVANE_SERVER_BINARY}).exitCode, 2);
    EXPECT_EQ(command({"grant", "--folder", "1", "--group", "lab", "--privileges", "7"}).exitCode, 2);
}

TEST_F(Commands, MistakesSayWhatIsWrong) {
    prepare();
    const auto message = [this](const std::vector<std::string>& arguments, int exitCode) {
        const ProgramResult result = command(arguments);
        EXPECT_EQ(result.exitCode, exitCode) << result.err;
        EXPECT_TRUE(result.err.starts_with("halvane-server: ")) << result.err;
        return result.err;
    };
    EXPECT_NE(message({"--nonsense"}, 2).find("--help"), std::string::npos);
    EXPECT_NE(message({"--listen", "somewhere:0"}, 1).find("no numerical address"), std::string::npos);
    const std::string missing = temporaryFile("missing.pem");
    const std::string told =
        message({"--listen", "127.0.0.1:0", "--tls-cert", missing, "--tls-key", missing}, 1);
    EXPECT_NE(told.find(missing), std::string::npos) << told;
    EXPECT_NE(told.find("No such file"), std::string::npos) << told;
    std::ofstream(missing) << "no certificate";
    EXPECT_NE(
        message({"--listen", "127.0.0.1:0", "--tls-cert", missing, "--tls-key", missing}, 1).find("PEM"),
        std::string::npos);
}

TEST_F(Commands, AnAddressInUseIsTold) {
    prepare();
    start();
    const TemporaryDirectory other;
    const std::string data = other.file("data");
    ASSERT_EQ(runProgram({HALVANE_SERVER_BINARY, "init", "--data", data, "--admin", "root",
                          "--password-stdin", "--password-memory-kib", "64", "--password-passes", "1"},
                         "secret\n")
                  .exitCode,
              0);
    const ProgramResult result = runProgram(
        {HALVANE_SERVER_BINARY, "--data", data, "--listen", "127.0.0.1:" + std::to_string(port())});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.err.find("Address already in use"), std::string::npos) << result.err;
}

TEST_F(Commands, AccountsAndGrantsRefuseWhatIsUnknownOrTaken) {
    prepare();
    EXPECT_EQ(command({"group", "add", "--name", "lab"}).exitCode, 0);
    EXPECT_EQ(command({"group", "add", "--name", "lab"}).exitCode, 3);
    EXPECT_EQ(
        command({"user", "add", "--name", "anna", "--group", "lab", "--password-stdin"}, "secret\n").exitCode,
        0);
    EXPECT_EQ(command({"user", "add", "--name", "anna", "--password-stdin"}, "secret\n").exitCode, 3);
    EXPECT_EQ(command({"user", "add", "--name", "bert", "--group", "none", "--password-stdin"}, "secret\n")
                  .exitCode,
              3);
    EXPECT_EQ(command({"grant", "--folder", "1", "--group", "none", "--privileges", "1"}).exitCode, 3);
    EXPECT_EQ(command({"grant", "--folder", "99", "--group", "lab", "--privileges", "1"}).exitCode, 3);
    EXPECT_EQ(command({"folder", "remove", "--folder", "99"}).exitCode, 3);
    EXPECT_EQ(command({"folder", "remove", "--folder", "1"}).exitCode, 3);
    start();
    actAs(login("anna"));
    EXPECT_EQ(get("/whoami").data().at("user").at("groups").at(0).at("name"), "lab");
}

TEST_F(Commands, HelpHasExamplesAndExitCodesEverywhere) {
    for (const std::vector<std::string>& path : std::vector<std::vector<std::string>>{
             {}, {"init"}, {"user", "add"}, {"group", "add"}, {"grant"}, {"folder", "remove"}}) {
        std::vector<std::string> arguments{HALVANE_SERVER_BINARY};
        arguments.insert(arguments.end(), path.begin(), path.end());
        arguments.emplace_back("--help");
        const ProgramResult result = runProgram(arguments);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_NE(result.out.find("Examples:"), std::string::npos) << result.out;
        EXPECT_NE(result.out.find("Exit codes:"), std::string::npos) << result.out;
    }
}

TEST_F(Commands, ThePortFileHoldsThePortAndNothingElse) {
    prepare();
    start();
    EXPECT_EQ(readFile(temporaryFile("port")), std::to_string(port()) + "\n");
    EXPECT_FALSE(std::filesystem::exists(temporaryFile("port.new")));
}

TEST_F(Commands, TlsServesTheSameCalls) {
    prepare();
    ASSERT_EQ(runProgram({"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout",
                          temporaryFile("key.pem"), "-out", temporaryFile("cert.pem"), "-days", "2", "-subj",
                          "/CN=localhost", "-addext", "subjectAltName=IP:127.0.0.1"})
                  .exitCode,
              0);
    start({"--tls-cert", temporaryFile("cert.pem"), "--tls-key", temporaryFile("key.pem")});
    const std::string base = "https://127.0.0.1:" + std::to_string(port()) + "/api/v1";
    const auto curl = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(),
                         {"curl", "-sS", "--noproxy", "*", "--cacert", temporaryFile("cert.pem")});
        const ProgramResult result = runProgram(arguments);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return result.out;
    };
    const auto data = [&](const std::string& text) { return nlohmann::json::parse(text).at("data"); };
    const std::string token =
        data(curl({"-d", R"({"user":"root","password":"secret"})", base + "/login"})).at("token");
    const std::string authorization = "Authorization: Bearer " + token;
    const std::string content = sampleBytes(90'000);
    { std::ofstream(temporaryFile("content"), std::ios::binary) << content; }
    const nlohmann::json upload =
        data(curl({"-H", authorization, "-d", R"({"name":"a","size":90000,"target_id":1,"target_type":1})",
                   base + "/uploads"}));
    const std::string id = std::to_string(upload.at("upload_id").get<int>());
    curl({"-f", "-H", authorization, "-H", "Halvane-Chunk-Xxh3: " + xxh3Text(content), "-H",
          "Halvane-Content-Sha256: " + sha256Text(content), "-T", temporaryFile("content"),
          base + "/uploads/" + id + "/chunks/0"});
    curl({"-f", "-H", authorization, "-d", "{\"upload_id\":" + id + "}", base + "/uploads/finalize"});
    EXPECT_EQ(curl({"-f", "-H", authorization, base + "/files/1/versions/latest/content"}), content);
}

} // namespace halvane::server
