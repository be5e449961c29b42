// What es-acl must say of a configuration, worked out from the configuration alone.
#ifndef ES_ACL_TESTS_E2E_EXPECTED_H_
#define ES_ACL_TESTS_E2E_EXPECTED_H_

#include <nlohmann/json.hpp>
#include <string>

namespace es_acl::e2e {

// The ACLs of a JSON configuration file, in the order of the file.
nlohmann::json configured_acls(const std::string& file);

// An ACL's entries in the form of the answer: in sequence order, defaults filled in, masks as wildcards,
// EtherTypes in hexadecimal, addresses without the bits that are not compared.
nlohmann::json expected_entries(const nlohmann::json& acl);

}  // namespace es_acl::e2e

#endif  // ES_ACL_TESTS_E2E_EXPECTED_H_
