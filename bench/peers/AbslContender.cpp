#include <absl/container/btree_map.h>

#include "bench/peers/MapExtents.h"
#include "bench/peers/PeerIndex.h"
#include "bench/peers/Peers.h"

std::unique_ptr<Contender> makeAbslContender()
{
    return std::make_unique<PeerIndex<MapExtents<absl::btree_map<u64, Extent>>>>();
}
