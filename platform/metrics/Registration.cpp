#include "platform/metrics/Registration.h"

#include <utility>

#include "platform/metrics/RegistrationGroup.h"

namespace Platform::Metrics {

Registration::Registration() noexcept = default;
Registration::Registration(std::unique_ptr<Group> group) noexcept : _group(std::move(group)) {}
Registration::~Registration() = default;
Registration::Registration(Registration&& other) noexcept = default;
Registration& Registration::operator=(Registration&& other) noexcept = default;

} // namespace Platform::Metrics
