// SPDX-License-Identifier: Apache-2.0
// Whom the set believes to be its server, and to whom it shows its own certificate.
#include <gmock/gmock.h>

#include <memory>
#include <string>

#include "fleet-test.h"
#include "program-start.h"

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr char kNotTrusted[] = "The server's certificate is not trusted (";

// An authority, certificates of it, and a server that has one.
class FleetTls : public FleetTest {
 protected:
  FleetTls() { makeAuthority("ca"); }

  std::string file(const std::string& name) const { return folder_.path() + "/" + name; }

  void makeAuthority(const std::string& name) const {
    openssl("req -x509 " + newKey(name) + " -out " + name + ".pem -days 2 -subj /CN=" + name +
            " -addext basicConstraints=critical,CA:TRUE");
  }

  // NAME.pem has its key, too.
  void makeCertificate(const std::string& name, const std::string& address,
                       const std::string& authority = "ca", int days = 2) const {
    openssl("req " + newKey(name) + " -out " + name + ".csr -subj /CN=" + name +
            " && echo subjectAltName=" + address + " >" + name + ".extensions");
    openssl("x509 -req -in " + name + ".csr -CA " + authority + ".pem -CAkey " + authority +
            ".key -CAcreateserial -extfile " + name + ".extensions -out " + name + ".pem -days " +
            std::to_string(days) + " && cat " + name + ".key >>" + name + ".pem");
  }

  // The set's server from then on, which it trusts by its authority.
  void serve(const std::string& certificate, const std::vector<std::string>& more = {}) {
    std::vector<std::string> options = {"--certificate", file(certificate + ".pem")};
    options.insert(options.end(), more.begin(), more.end());
    server_ = std::make_unique<Lab>(options);
    configuration_.server = server_->protectedAddress();
    configuration_.allowInsecure = false;
    configuration_.caFile = file("ca.pem");
    restart();
    server_->steer(
        "assign", "{'set': 'tv1', 'chunks': [{'name': 'tunerfw', 'version': '2.0', 'files': {'a': '2.0'}}]}");
  }

  void showCertificate(const std::string& name) {
    configuration_.clientCertificate = file(name + ".pem");
    configuration_.clientKey = file(name + ".key");
    restart();
  }

  void expectNothingAsked() const {
    EXPECT_EQ(server_->requests("base"), 0);
    EXPECT_EQ(server_->stateOf(), "running");
  }

  std::unique_ptr<Lab> server_;

 private:
  static std::string newKey(const std::string& name) {
    return "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout " + name + ".key";
  }

  void openssl(const std::string& words) const {
    base::ProgramStart start;
    std::string said;
    int status = -1;
    start.in(folder_.path().c_str());
    start.runToEnd(
        {"/bin/sh", "-c", "exec 2>&1; openssl " + words}, base::environmentWithout("OPENSSL_CONF"),
        [&said](std::string_view bytes) { said += bytes; }, status);
    ASSERT_EQ(status, 0) << words << "\n" << said;
  }
};

TEST_F(FleetTls, IsUpdatedByAServerOfTheConfiguredAuthority) {
  makeCertificate("server", "IP:127.0.0.1");
  serve("server");

  turns(2);

  EXPECT_EQ(agent_->trouble(), "");
  EXPECT_EQ(server_->stateOf(), "finished");
  EXPECT_EQ(versionOf("tunerfw"), "2.0");
}

TEST_F(FleetTls, AsksNoServerOfAnotherAuthority) {
  makeAuthority("other");
  makeCertificate("server", "IP:127.0.0.1", "other");
  serve("server");

  turns(2);

  EXPECT_THAT(agent_->trouble(), StartsWith(kNotTrusted));
  EXPECT_THAT(agent_->trouble(), HasSubstr("unable to get local issuer certificate"));
  expectNothingAsked();
}

TEST_F(FleetTls, AsksNoServerOfTheSystemsAuthoritiesWhereItHasItsOwn) {
  configuration_.caFile = "";
  makeCertificate("server", "IP:127.0.0.1");
  serve("server");
  configuration_.caFile = file("none.pem");
  restart();

  turns(2);

  EXPECT_THAT(agent_->trouble(), StartsWith("The file of trusted certificates cannot be read ("));
  expectNothingAsked();
}

TEST_F(FleetTls, AsksNoServerOfAnotherName) {
  makeCertificate("server", "IP:127.0.0.2,DNS:localhost");
  serve("server");

  turns(2);

  EXPECT_THAT(agent_->trouble(), StartsWith(kNotTrusted));
  EXPECT_THAT(agent_->trouble(), HasSubstr("127.0.0.1"));
  expectNothingAsked();
}

TEST_F(FleetTls, AsksNoServerWhoseCertificateHasExpired) {
  makeCertificate("server", "IP:127.0.0.1", "ca", -1);
  serve("server");

  turns(2);

  EXPECT_THAT(agent_->trouble(), StartsWith(kNotTrusted));
  EXPECT_THAT(agent_->trouble(), HasSubstr("certificate has expired"));
  expectNothingAsked();
}

TEST_F(FleetTls, FollowsNoRedirectToAConnectionThatIsNotProtected) {
  makeCertificate("server", "IP:127.0.0.1");
  serve("server");
  server_->steer("switch", "{'elsewhere': '" + lab_.address() +
                               "/DEFAULT/controller/v1/tv1/softwaremodules/1/artifacts/'}");
  assign();
  configuration_.allowInsecure = true;
  restart();

  turns(2);

  EXPECT_THAT(agent_->trouble(), HasSubstr("The server redirects to " + lab_.address()));
  EXPECT_THAT(agent_->trouble(), HasSubstr("which is not protected."));
  EXPECT_EQ(lab_.requests("softwaremodules"), 0);
  EXPECT_EQ(server_->stateOf(), "running");
}

class FleetMutualTls : public FleetTls {
 protected:
  void SetUp() override {
    makeCertificate("server", "IP:127.0.0.1");
    makeCertificate("tv1", "DNS:tv1");
  }
};

TEST_F(FleetMutualTls, ShowsTheSetsCertificateToAServerThatWantsOne) {
  serve("server", {"--client-ca", file("ca.pem")});
  showCertificate("tv1");

  turns(2);

  EXPECT_EQ(agent_->trouble(), "");
  EXPECT_EQ(server_->stateOf(), "finished");
  EXPECT_EQ(server_->state()["requests"][0]["certificate"], "tv1");
}

TEST_F(FleetMutualTls, SaysThatTheServerWantsACertificate) {
  serve("server", {"--client-ca", file("ca.pem")});

  turns(2);

  EXPECT_THAT(agent_->trouble(), StartsWith("The server wants a certificate of the set ("));
  expectNothingAsked();
}

TEST_F(FleetMutualTls, SaysThatTheServerDoesNotTakeTheCertificate) {
  makeAuthority("other");
  makeCertificate("foreign", "DNS:tv1", "other");
  serve("server", {"--client-ca", file("ca.pem")});
  showCertificate("foreign");

  turns(2);

  EXPECT_THAT(agent_->trouble(), StartsWith("The server does not take the set's own certificate ("));
  expectNothingAsked();
}

TEST_F(FleetMutualTls, SaysThatTheKeyIsNotThatOfTheCertificate) {
  serve("server", {"--client-ca", file("ca.pem")});
  showCertificate("tv1");
  configuration_.clientKey = file("server.key");
  restart();

  turns(2);

  EXPECT_THAT(agent_->trouble(), StartsWith("The set's own certificate or its key cannot be used ("));
  expectNothingAsked();
}

TEST_F(FleetMutualTls, ShowsItsCertificateToNoServerThatItIsRedirectedTo) {
  const Lab other({"--certificate", file("server.pem"), "--client-ca", file("ca.pem"), "--optional"});
  other.steer("assign",
              "{'set': 'tv1', 'chunks': [{'name': 'tunerfw', 'version': '2.0', 'files': {'a': '2.0'}}]}");
  serve("server", {"--client-ca", file("ca.pem")});
  showCertificate("tv1");
  server_->steer("switch", "{'elsewhere': '" + other.protectedAddress() +
                               "/DEFAULT/controller/v1/tv1/softwaremodules/1/artifacts/'}");

  turns(2);

  EXPECT_EQ(server_->stateOf(), "finished");
  EXPECT_EQ(other.requests("softwaremodules"), 1);
  EXPECT_EQ(other.countOf("certificate"), 0);
}

}  // namespace
