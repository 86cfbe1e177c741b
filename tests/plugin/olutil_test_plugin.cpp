// A plug-in that the dynamic-library tests open: one function and one value.
extern "C"
{
int olTestPluginAnswer()
{
   return 42;
}

int olTestPluginValue = 7;
}
