# Tests that use the one folder behind the scratch plug-in take turns.
set_tests_properties(Client.TheDecisionShownIsTheOneTheNextStartTakes
  PROPERTIES RESOURCE_LOCK scratch)
