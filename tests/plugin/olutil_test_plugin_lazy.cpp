// A plug-in with a function that calls what no library defines: it opens with
// lazy binding and fails to open with immediate binding.
extern "C" int olTestPluginMissing();

extern "C" int olTestPluginCallsMissing()
{
   return olTestPluginMissing();
}
