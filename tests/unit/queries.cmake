# The tests of the trial, of the edits of all profiles, of the block queries and of the firewall's C entry points.
tarn_unit_test(tarnFW/trial)
tarn_unit_test(tarnFW/serviceRules)
tarn_unit_test(tarnFW/profileEdits)
tarn_unit_test(tarnFW/blockQueries)
tarn_unit_test(tarnfirewall_c_entryPoints)
