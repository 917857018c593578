#include <map>

#include "bench/peers/MapExtents.h"
#include "bench/peers/PeerIndex.h"
#include "bench/peers/Peers.h"

std::unique_ptr<Contender> makeMapContender()
{
    return std::make_unique<PeerIndex<MapExtents<std::map<u64, Extent>>>>();
}
