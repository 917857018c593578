#include "cli/Points.h"

namespace {

Result choose(Context& context, Mirror& mirror, const PointName& name, const std::string& role,
              ChosenPoint* point)
{
    if (Result result = choosePoint(name, mirror.window(), point); !result.ok())
        return result;
    context.say(role + " " + point->description());
    return Result();
}

} // namespace

Result pickPoint(Context& context, Mirror& mirror, const std::string& name, const std::string& role,
                 ChosenPoint* point)
{
    PointName parsed;
    if (Result result = parsePoint(name, &parsed); !result.ok())
        return result;
    return choose(context, mirror, parsed, role, point);
}

Result pickSpan(Context& context, Mirror& mirror, const std::string& span, ChosenPoint* from,
                ChosenPoint* to)
{
    std::pair<PointName, PointName> names;
    if (Result result = parseSpan(span, &names); !result.ok())
        return result;
    if (Result result = choose(context, mirror, names.first, "from", from); !result.ok())
        return result;
    return choose(context, mirror, names.second, "to", to);
}
