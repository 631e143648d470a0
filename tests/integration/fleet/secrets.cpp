// SPDX-License-Identifier: Apache-2.0
// Who learns who the set is, and over which connections anything comes.
#include "fleet-test.h"

namespace {

using ::testing::HasSubstr;

class FleetSecrets : public FleetTest {
 protected:
  void useToken() {
    configuration_.tokenType = fleet::TokenType::Target;
    token_ = "secret";
    restart();
  }
};

TEST_F(FleetSecrets, ShowsItsTokenToItsServer) {
  useToken();
  lab_.steer("switch", "{'token': 'TargetToken secret'}");
  assign();

  turns(2);

  EXPECT_EQ(lab_.stateOf(), "finished");
}

TEST_F(FleetSecrets, ShowsTheTokenOfATenantUnderItsOwnName) {
  useToken();
  configuration_.tokenType = fleet::TokenType::Gateway;
  restart();
  lab_.steer("switch", "{'token': 'GatewayToken secret'}");
  assign();

  turns(2);

  EXPECT_EQ(lab_.stateOf(), "finished");
}

TEST_F(FleetSecrets, ShowsItsTokenToNoServerThatItIsRedirectedTo) {
  const Lab other;
  useToken();
  const std::string chunks = "'chunks': [{'name': 'tunerfw', 'version': '2.0', 'files': {'a.img': '2.0'}}]";
  other.steer("assign", "{'set': 'tv1', " + chunks + "}");
  lab_.steer("switch", "{'elsewhere': '" + other.address() +
                           "/DEFAULT/controller/v1/tv1/softwaremodules/1/artifacts/'}");
  assign();

  turns(2);

  EXPECT_EQ(lab_.stateOf(), "finished");
  EXPECT_EQ(other.requests("softwaremodules"), 1);
  EXPECT_EQ(other.countOf("token"), 0);
}

TEST_F(FleetSecrets, ShowsItsTokenToNoServerThatALinkLeadsTo) {
  const Lab other;
  useToken();
  const std::string chunks = "'chunks': [{'name': 'tunerfw', 'version': '2.0', 'files': {'a.img': '2.0'}}]";
  other.steer("assign", "{'set': 'tv1', " + chunks + "}");
  lab_.steer("switch",
             "{'answers': [{'what': 'base', 'status': 200, 'body': {'_links': {'deploymentBase': "
             "{'href': '" +
                 other.address() + "/DEFAULT/controller/v1/tv1/deploymentBase/1'}}}}]}");
  assign();

  turns(1);

  EXPECT_EQ(other.requests("deploymentBase"), 1);
  EXPECT_EQ(other.requests("softwaremodules"), 1);
  EXPECT_EQ(other.countOf("token"), 0);
  EXPECT_EQ(other.requests("deploymentBase/feedback"), 0);
  EXPECT_EQ(lab_.stateOf(), "finished");
}

TEST_F(FleetSecrets, AsksNothingOverAConnectionThatIsNotProtected) {
  configuration_.allowInsecure = false;
  restart();
  assign();

  turns(2);

  EXPECT_EQ(lab_.requests("base"), 0);
  EXPECT_THAT(agent_->trouble(), HasSubstr("is not protected."));
}

TEST_F(FleetSecrets, RefusesArtifactsThatAreLargerThanAllowed) {
  configuration_.largestArtifact = 100000;
  restart();
  assignLarge();

  turns(2);

  EXPECT_EQ(lab_.requests("softwaremodules"), 0);
  EXPECT_THAT(lab_.messages()[0], HasSubstr("larger than the 100000 bytes that are allowed"));
}

}  // namespace
