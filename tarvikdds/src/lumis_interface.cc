#include "tarvikdds/lumis_interface.h"

#include "korvan/bus/lumis_component.h"

namespace tarvik {
namespace quessa {
namespace lumis_interface {
namespace {

using korvan::bus::kObjectClient;
using korvan::bus::kObjectService;
using korvan::bus::LumisComponent;

LumisComponent& Component() {
  static LumisComponent component;
  return component;
}

}  // namespace

std::shared_ptr<void> GetLumisNode(const std::string& first, const std::string& second) {
  return Component().lumisNode(first, second);
}

std::shared_ptr<void> GetLumisServiceObject(void* object, const void* arg) {
  return Component().getObject(kObjectService, object, arg);
}

std::shared_ptr<void> GetLumisClientObject(void* object, const void* arg) {
  return Component().getObject(kObjectClient, object, arg);
}

std::shared_ptr<void> SetLumisClientRequest(const std::string& name, void* object,
                                            const void* arg) {
  return Component().callObjectFunc(kObjectClient, name, object, arg);
}

}  // namespace lumis_interface
}  // namespace quessa
}  // namespace tarvik
