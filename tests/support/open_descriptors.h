/* Descriptors that a test leaves open fail it. */
#pragma once
#include <map>
#include <string>

namespace support {

/* The open descriptors of this process with what they refer to. */
std::map<int, std::string> openDescriptors();

/* Fails the test when the scope ends with more open descriptors than it began with. What the
 * platform keeps open for good must be open before: do the thing once first. */
class DescriptorCheck {
  public:
    DescriptorCheck() : before_(openDescriptors()) {}
    ~DescriptorCheck();
    DescriptorCheck(const DescriptorCheck &) = delete;
    DescriptorCheck &operator=(const DescriptorCheck &) = delete;

  private:
    std::map<int, std::string> before_;
};

}  // namespace support
