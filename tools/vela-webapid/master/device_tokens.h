// Device cookies: what a browser gets when it logs in, so that later it is
// known for that user. A token is a random ID and a keyed digest of the ID
// and the user name; it proves nothing but that this browser once logged
// in as that user. The key lives in the host's state directory, readable
// by root only, so tokens outlive a restart; when it cannot be kept there
// the host makes one for this run and says so.
#ifndef VELA_WEBAPID_MASTER_DEVICE_TOKENS_H_
#define VELA_WEBAPID_MASTER_DEVICE_TOKENS_H_

#include <string>

namespace vela::webapid {

class DeviceTokens {
 public:
  // Reads or makes the key in `stateDir`.
  explicit DeviceTokens(const std::string& stateDir);
  ~DeviceTokens();
  DeviceTokens(const DeviceTokens&) = delete;
  DeviceTokens& operator=(const DeviceTokens&) = delete;

  std::string Issue(const std::string& user) const;
  // The ID of `token` when it was issued for `user`; "" otherwise.
  std::string Recognise(const std::string& token, const std::string& user) const;
  // Wipes the key (in a freshly forked worker).
  void Wipe();

 private:
  std::string key_;
};

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_MASTER_DEVICE_TOKENS_H_
