// The one instance of the class registry: every plug-in's static initialiser
// and the host's lookups use these members of the host library.
#include "Registry.h"

#include "Feature.h"
#include "FeatureInfo.h"

template <class Base, class Info>
typename RegistryBase<Base, Info>::ClassMap* RegistryBase<Base, Info>::classList = nullptr;

template <class Base, class Info>
std::mutex RegistryBase<Base, Info>::mMutex;

template class RegistryBase<Feature, FeatureInfo>;
