#include "services/descriptionbudget.h"

namespace gateway {

tk::Status DescriptionBudget::roomFor(const PortMap& added, const PortMap* replaced) const {
    const std::size_t freed = replaced ? replaced->description.size() : 0;
    const auto share = shares.find(added.requester);
    std::size_t own = share == shares.end() ? 0 : share->second;
    if (replaced && replaced->requester == added.requester) own -= freed;
    const std::size_t size = added.description.size();
    if (own + size > hostLimit)
        return tk::Status::failure("the descriptions of this host's mappings take too much memory");
    const std::size_t most = own + size <= hostFloor ? limitWithFloors : limit;
    if (total - freed + size > most)
        return tk::Status::failure("the descriptions of all mappings take too much memory");
    return {};
}

void DescriptionBudget::take(const PortMap& map) {
    if (map.description.empty()) return;
    shares[map.requester] += map.description.size();
    total += map.description.size();
}

void DescriptionBudget::giveBack(const PortMap& map) {
    if (map.description.empty()) return;
    const auto share = shares.find(map.requester);
    share->second -= map.description.size();
    if (share->second == 0) shares.erase(share);
    total -= map.description.size();
}

}  // namespace gateway
