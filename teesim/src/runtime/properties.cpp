/* TA installation properties and the property functions of the Internal API. */
#include "runtime/properties.h"

#include <strings.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "runtime/runtime.h"
#include "tee_internal_api.h"
#include "teesim_ta.h"

namespace teesim::runtime {
namespace {

std::string trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r");
  if (b == std::string::npos) return {};
  size_t e = s.find_last_not_of(" \t\r");
  return s.substr(b, e - b + 1);
}

/* Client identity of the session whose entry point is running. */
uint32_t g_client_login = 0;
Uuid g_client_identity;

const char* bool_text(bool b) { return b ? "true" : "false"; }

/* Finds a property of one of the three sets. */
bool lookup(TEE_PropSetHandle set, const char* name, std::string* value) {
  const std::string key(name);
  if (set == TEE_PROPSET_CURRENT_TA) {
    const Config& c = config();
    if (key == "gpd.ta.appID") {
      *value = uuid_to_string(c.uuid);
    } else if (key == "gpd.ta.singleInstance") {
      *value = bool_text(c.ta_flags & TEESIM_TA_FLAG_SINGLE_INSTANCE);
    } else if (key == "gpd.ta.multiSession") {
      *value = bool_text(c.ta_flags & TEESIM_TA_FLAG_MULTI_SESSION);
    } else if (key == "gpd.ta.instanceKeepAlive") {
      *value = bool_text(c.ta_flags & TEESIM_TA_FLAG_KEEP_ALIVE);
    } else if (key == "gpd.ta.description") {
      *value = c.name;
    } else {
      auto it = c.properties.find(key);
      if (it == c.properties.end()) return false;
      *value = it->second;
    }
    return true;
  }
  if (set == TEE_PROPSET_CURRENT_CLIENT) {
    if (key == "gpd.client.identity") {
      char login[16];
      std::snprintf(login, sizeof login, "%08x", g_client_login);
      *value = std::string(login) + ":" + uuid_to_string(g_client_identity);
    } else if (key == "gpd.client.endian") {
      *value = "0";
    } else {
      return false;
    }
    return true;
  }
  if (set == TEE_PROPSET_TEE_IMPLEMENTATION) {
    if (key == "gpd.tee.apiversion") {
      *value = "1.1";
    } else if (key == "gpd.tee.description") {
      *value = "teesim: simulated TEE for machines without TEE hardware";
    } else if (key == "gpd.tee.internalCore.version") {
      *value = "0x01010000";
    } else if (key == "gpd.tee.systemTime.protectionLevel") {
      *value = "100"; /* the normal world can change it */
    } else if (key == "gpd.tee.trustedStorage.antiRollback.protectionLevel") {
      *value = "0";
    } else {
      return false;
    }
    return true;
  }
  /* Enumerator handles are not offered: any other value is a bad handle. */
  TEE_Panic(TEE_ERROR_BAD_PARAMETERS);
}

}  // namespace

void set_current_client(uint32_t login, const Uuid& identity) {
  g_client_login = login;
  g_client_identity = identity;
}

bool parse_properties(const std::string& text, std::map<std::string, std::string>* out,
                      std::string* error) {
  std::map<std::string, std::string> props;
  std::istringstream in(text);
  std::string line;
  int number = 0;
  while (std::getline(in, line)) {
    ++number;
    std::string t = trim(line);
    if (t.empty() || t[0] == '#') continue;
    size_t eq = t.find('=');
    if (eq == std::string::npos) {
      *error = "line " + std::to_string(number) + ": expected 'name = value'";
      return false;
    }
    std::string name = trim(t.substr(0, eq));
    std::string value = trim(t.substr(eq + 1));
    if (name.empty()) {
      *error = "line " + std::to_string(number) + ": empty property name";
      return false;
    }
    if (name.compare(0, 4, "gpd.") == 0) {
      *error = "line " + std::to_string(number) + ": '" + name +
               "' is reserved (gpd.* properties come from the TA itself)";
      return false;
    }
    if (!props.emplace(name, value).second) {
      *error = "line " + std::to_string(number) + ": '" + name + "' given twice";
      return false;
    }
  }
  *out = std::move(props);
  return true;
}

bool parse_u32(const std::string& text, uint32_t* out) {
  if (text.empty()) return false;
  uint64_t v = 0;
  size_t i = 0;
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    i = 2;
  }
  for (; i < text.size(); ++i) {
    char c = text[i];
    int d;
    if (c >= '0' && c <= '9') d = c - '0';
    else if (base == 16 && c >= 'a' && c <= 'f') d = c - 'a' + 10;
    else if (base == 16 && c >= 'A' && c <= 'F') d = c - 'A' + 10;
    else return false;
    v = v * static_cast<uint64_t>(base) + static_cast<uint64_t>(d);
    if (v > 0xFFFFFFFFull) return false;
  }
  *out = static_cast<uint32_t>(v);
  return true;
}

bool parse_bool(const std::string& text, bool* out) {
  if (::strcasecmp(text.c_str(), "true") == 0) {
    *out = true;
    return true;
  }
  if (::strcasecmp(text.c_str(), "false") == 0) {
    *out = false;
    return true;
  }
  return false;
}

}  // namespace teesim::runtime

using teesim::runtime::lookup;

extern "C" TEE_Result TEE_GetPropertyAsString(TEE_PropSetHandle set, const char* name,
                                              char* valueBuffer, uint32_t* valueBufferLen) {
  if (name == nullptr || valueBufferLen == nullptr) TEE_Panic(TEE_ERROR_BAD_PARAMETERS);
  std::string value;
  if (!lookup(set, name, &value)) return TEE_ERROR_ITEM_NOT_FOUND;
  uint64_t needed = value.size() + 1;
  if (needed > 0xFFFFFFFFu) return TEE_ERROR_GENERIC;
  if (valueBuffer == nullptr || *valueBufferLen < needed) {
    *valueBufferLen = static_cast<uint32_t>(needed);
    return TEE_ERROR_SHORT_BUFFER;
  }
  std::memcpy(valueBuffer, value.c_str(), needed);
  *valueBufferLen = static_cast<uint32_t>(needed);
  return TEE_SUCCESS;
}

extern "C" TEE_Result TEE_GetPropertyAsBool(TEE_PropSetHandle set, const char* name, bool* value) {
  if (name == nullptr || value == nullptr) TEE_Panic(TEE_ERROR_BAD_PARAMETERS);
  std::string text;
  if (!lookup(set, name, &text)) return TEE_ERROR_ITEM_NOT_FOUND;
  if (!teesim::runtime::parse_bool(text, value)) return TEE_ERROR_BAD_FORMAT;
  return TEE_SUCCESS;
}

extern "C" TEE_Result TEE_GetPropertyAsU32(TEE_PropSetHandle set, const char* name,
                                           uint32_t* value) {
  if (name == nullptr || value == nullptr) TEE_Panic(TEE_ERROR_BAD_PARAMETERS);
  std::string text;
  if (!lookup(set, name, &text)) return TEE_ERROR_ITEM_NOT_FOUND;
  if (!teesim::runtime::parse_u32(text, value)) return TEE_ERROR_BAD_FORMAT;
  return TEE_SUCCESS;
}
